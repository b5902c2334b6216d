#include "common/base/watchdogtimerrequest.h"

#include <cstdlib>

#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>

#include "common/base/comlog.h"

WatchDogTimerRequest::WatchDogTimerRequest(ActiveObj* monitored,
                                           int timeoutSeconds)
    : MethodRequest(),
      ACE_Event_Handler(),
      monitored_(monitored),
      timeout_(timeoutSeconds) {
  ACE_Reactor::instance()->schedule_timer(this, nullptr, timeout_,
                                          ACE_Time_Value::zero);
}

WatchDogTimerRequest::~WatchDogTimerRequest() {
  // A stop may discard the request unrun: the reactor must not keep a
  // pointer to it.
  ACE_Reactor::instance()->cancel_timer(this, 1);
}

ActiveObj* WatchDogTimerRequest::GetActiveObj() { return monitored_; }

const char* WatchDogTimerRequest::GetName() { return "WatchDogTimerRequest"; }

int WatchDogTimerRequest::ExecuteImpl() {
  ACE_Reactor::instance()->cancel_timer(this, 1);
  return 0;
}

int WatchDogTimerRequest::handle_timeout(const ACE_Time_Value&, const void*) {
  COM_LOG((LM_ERROR,
           "WatchDogTimerRequest::handle_timeout: No response from %s for %d "
           "seconds. Exiting the application!!\n",
           monitored_->name(), static_cast<int>(timeout_.sec())));
  ACE_OS::sleep(5);
  std::exit(0);
}
