// ShutDownEvent: ties the process's reactor event loop
// (ACE_Reactor::instance()) to the installation-wide stop event
// "Global\KelvaneAllStop" and, optionally, to an automatic-restart timer;
// after the loop has ended it can guard the shutdown with a deadline that
// ends the process by force.
//
// A server's main thread:
//   ShutDownEvent stop(ACE_Time_Value(24 * 3600), 30);
//   ACE_Reactor::instance()->run_reactor_event_loop();
//   stop.ShutDown();              // from here on at most ~30 s remain
//   ActiveObj::stopAll();
//   stop.ShutdownGracefully();    // the forced exit is called off
//   if (stop.isAutomatedShutdown()) ...restart...
//
// The stop event is a Common::NamedEvent (manual-reset: once signalled it
// stays so until someone resets it, and every process holding a
// ShutDownEvent ends its loop). Linux has no reactor registration of an
// event: a waiting thread of this object hands each signal to the reactor
// (see common/base/internal/reactorrelay.h), so handle_signal runs on the
// reactor's thread.
//
// The forced exit: ShutDown() with a non-zero exit delay starts a thread
// that polls every 500 ms for ShutdownGracefully(); after the delay
// (rounded to half-seconds) it logs, sleeps one more second and calls
// exit(-1), so the process ends with status 255.
//
// Thread safety: handle_signal and handle_timeout run on the reactor's
// thread; ShutDown, ShutdownGracefully and the destructor on the owner's.
// The flags are atomic.
#ifndef COM_COMMON_BASE_SHUTDOWNEVENT_H_
#define COM_COMMON_BASE_SHUTDOWNEVENT_H_

#include <atomic>
#include <memory>

#include <ace/Event_Handler.h>
#include <ace/SString.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"
#include "common/base/smartptr.h"
#include "common/namedevent/namedevent.h"

namespace Kelvane {
namespace internal {
class ReactorRelay;
}
}  // namespace Kelvane

class COM_EXPORT ShutDownEvent : public ACE_Event_Handler {
 public:
  // Opens the stop event (its exceptions pass to the caller), schedules the
  // restart timer when `restartAfter` is not zero, and registers with the
  // reactor; a failed registration is logged at LM_ERROR and leaves only
  // the timer.
  ShutDownEvent(const ACE_Time_Value& restartAfter, int exitDelaySeconds);
  // A copy holds its own handle on the same event and has no timer and no
  // reactor registration.
  ShutDownEvent(const ShutDownEvent& other);
  ShutDownEvent& operator=(const ShutDownEvent& other);
  // Cancels the timer and registration as ShutDown does, waits for the exit
  // thread when one was started.
  ~ShutDownEvent() override;

  // Ends the reactor loop; returns 1.
  int handle_signal(int, siginfo_t*, ucontext_t*) override;
  // The restart timer: sets isAutomatedShutdown, ends the loop; returns 1.
  int handle_timeout(const ACE_Time_Value&, const void*) override;

  bool isAutomatedShutdown();
  // Cancels the timer and the registration; with a non-zero exit delay
  // starts the exit thread (once).
  void ShutDown();
  void ShutdownGracefully();
  // The exit thread's body; `shutDownEvent` is the ShutDownEvent.
  static void* ExitProcess(void* shutDownEvent);

 private:
  void Unregister();

  std::atomic<bool> automated_;
  std::atomic<bool> graceful_;
  int exitDelay_;
  int exitThreadGroup_;
  ACE_CString eventName_;
  Kelvane::auto_ptr<Common::NamedEvent> event_;
  std::unique_ptr<Kelvane::internal::ReactorRelay> relay_;
};

#endif  // COM_COMMON_BASE_SHUTDOWNEVENT_H_
