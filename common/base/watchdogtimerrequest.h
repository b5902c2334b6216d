// WatchDogTimerRequest: the request an active object's watchdog tick queues
// on the object itself (ActiveObj::ActivateWatchDogTimer).
//
// At construction it arms a one-shot timer of the given timeout on
// ACE_Reactor::instance(). If a worker of the monitored object runs the
// request first, ExecuteImpl cancels the timer and the request completes.
// If the timer fires first (on the reactor loop's thread), the process ends:
// handle_timeout logs at LM_ERROR "WatchDogTimerRequest::handle_timeout: No
// response from %s for %d seconds. Exiting the application!!\n" (object
// name, timeout seconds), sleeps 5 seconds so that the line reaches its
// sinks, and calls exit(0). The status 0 is deliberate.
//
// Each tick makes a new request, so several may be queued and armed while
// a worker is stuck; the first to expire ends the process. A request
// discarded by a stop (never run) disarms its timer when it is deleted.
//
// Thread safety: ExecuteImpl runs on a worker, handle_timeout on the
// reactor's thread; the reactor's timer lock decides which wins.
#ifndef COM_COMMON_BASE_WATCHDOGTIMERREQUEST_H_
#define COM_COMMON_BASE_WATCHDOGTIMERREQUEST_H_

#include <ace/Event_Handler.h>
#include <ace/Time_Value.h>

#include "common/base/activeobj.h"
#include "common/base/comexport.h"

class COM_EXPORT WatchDogTimerRequest : public MethodRequest,
                                        public ACE_Event_Handler {
 public:
  // Arms the timer (first expiry after timeoutSeconds, no interval); a
  // failure to arm it is ignored.
  WatchDogTimerRequest(ActiveObj* monitored, int timeoutSeconds);
  ~WatchDogTimerRequest() override;

  ActiveObj* GetActiveObj() override;
  // "WatchDogTimerRequest".
  const char* GetName() override;
  // Does not return: logs, sleeps 5 seconds and ends the process with 0.
  int handle_timeout(const ACE_Time_Value& now, const void* act) override;

 protected:
  // Disarms the timer; returns 0.
  int ExecuteImpl() override;

 private:
  ActiveObj* monitored_;
  ACE_Time_Value timeout_;
};

#endif  // COM_COMMON_BASE_WATCHDOGTIMERREQUEST_H_
