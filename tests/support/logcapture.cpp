#include "support/logcapture.h"

#include <ace/Log_Record.h>

namespace testsupport {

LogCapture::LogCapture() {
  ACE_Log_Msg* msg = ACE_LOG_MSG;
  flags_ = msg->flags();
  mask_ = msg->priority_mask(ACE_Log_Msg::THREAD);
  previous_ = msg->msg_callback(this);
  msg->priority_mask(~0ul, ACE_Log_Msg::THREAD);
  msg->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  msg->clr_flags(ACE_Log_Msg::STDERR);
}

LogCapture::~LogCapture() {
  ACE_Log_Msg* msg = ACE_LOG_MSG;
  msg->msg_callback(previous_);
  msg->clr_flags(~0ul);
  msg->set_flags(flags_);
  msg->priority_mask(mask_, ACE_Log_Msg::THREAD);
}

void LogCapture::log(ACE_Log_Record& record) {
  records_.push_back(
      {static_cast<ACE_Log_Priority>(record.type()), record.msg_data()});
}

}  // namespace testsupport
