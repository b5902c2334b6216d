#include "common/base/delayedcommand.h"

#include <ace/Reactor.h>

#include "common/base/comlog.h"

DelayedCommand::DelayedCommand(const MethodRequestPtr& request,
                               Kelvane::CommandPriority priority,
                               const ACE_Time_Value& delay)
    : request_(request), priority_(priority) {
  // The timer may fire, and this object be deleted, before schedule_timer
  // returns: nothing of it is touched afterwards except on failure.
  const char* name = request_.isNull() ? "" : request_->GetName();
  if (ACE_Reactor::instance()->schedule_timer(this, nullptr, delay,
                                              ACE_Time_Value::zero) == -1) {
    COM_LOG((LM_CRITICAL,
             "DelayedCommand::DelayedCommand: Could not schedule timer for "
             "command %s.\n",
             name));
  }
}

DelayedCommand::DelayedCommand(const DelayedCommand& other)
    : ACE_Event_Handler(),
      request_(other.request_),
      priority_(other.priority_) {}

DelayedCommand::DelayedCommand(DelayedCommand&& other)
    : ACE_Event_Handler(),
      request_(other.request_),
      priority_(other.priority_) {}

DelayedCommand& DelayedCommand::operator=(const DelayedCommand& other) {
  request_ = other.request_;
  priority_ = other.priority_;
  return *this;
}

DelayedCommand& DelayedCommand::operator=(DelayedCommand&& other) {
  request_ = other.request_;
  priority_ = other.priority_;
  return *this;
}

DelayedCommand::~DelayedCommand() = default;

int DelayedCommand::handle_timeout(const ACE_Time_Value&, const void*) {
  if (!request_.isNull()) {
    request_->Reactivate(priority_, ACE_Time_Value::zero);
  }
  return -1;
}

int DelayedCommand::handle_close(ACE_HANDLE, ACE_Reactor_Mask) {
  delete this;
  return 0;
}
