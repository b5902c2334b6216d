// Collects the ACE_Log_Msg records logged on the calling thread while it
// lives, instead of printing them.
#ifndef COM_TESTS_SUPPORT_LOGCAPTURE_H_
#define COM_TESTS_SUPPORT_LOGCAPTURE_H_

#include <string>
#include <vector>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Priority.h>

namespace testsupport {

class LogCapture : public ACE_Log_Msg_Callback {
 public:
  struct Record {
    ACE_Log_Priority priority;
    std::string text;
  };
  LogCapture();
  ~LogCapture() override;
  void log(ACE_Log_Record& record) override;
  const std::vector<Record>& records() const { return records_; }

 private:
  std::vector<Record> records_;
  ACE_Log_Msg_Callback* previous_;
  unsigned long flags_;
  unsigned long mask_;
};

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_LOGCAPTURE_H_
