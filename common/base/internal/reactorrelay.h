// ReactorRelay: brings a Linux wake-up source onto the process-wide reactor
// (ACE_Reactor::instance()), so that a handler's handle_signal runs on the
// thread that runs the reactor's event loop, as it does for an event handle
// registered with the reactor on Windows.
//
// Two sources:
//  - a named event (Common::NamedEvent::handle()): one waiting thread per
//    relay sleeps on the event's futex word and, for every signal or pulse,
//    bumps an eventfd that is registered with the reactor for reading. An
//    event already signalled when the relay starts is handed on once. The
//    signals are edge-like: a manual-reset event that stays signalled is
//    handed on once, not on every turn of the loop.
//  - a descriptor (an inotify descriptor): registered with the reactor for
//    reading; when it is readable `drain` empties it and says whether the
//    target is to be told.
//
// Stop() (and the destructor) removes the registration with DONT_CALL and
// ends the waiting thread before it returns; once it has returned the
// target is never called again. The reactor holds its token while it
// dispatches, so Stop() on another thread waits for a call in progress.
//
// Thread safety: Start and Stop on the owner's thread; the relay's own
// thread and the reactor's thread do the rest.
#ifndef COM_COMMON_BASE_INTERNAL_REACTORRELAY_H_
#define COM_COMMON_BASE_INTERNAL_REACTORRELAY_H_

#include <atomic>
#include <functional>
#include <thread>

#include <ace/Event_Handler.h>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

class COM_EXPORT ReactorRelay : public ACE_Event_Handler {
 public:
  ReactorRelay();
  ~ReactorRelay() override;

  // Relays the signals and pulses of the named event whose handle() is
  // `eventHandle`. 0, or -1 with errno set (nothing registered).
  int WatchEvent(ACE_Event_Handler* target, void* eventHandle);
  // Relays readiness of `fd` (not owned) filtered through `drain`.
  int WatchDescriptor(ACE_Event_Handler* target, ACE_HANDLE fd,
                      std::function<bool(ACE_HANDLE)> drain);
  void Stop();
  bool active() const { return target_ != nullptr; }

  int handle_input(ACE_HANDLE) override;
  ACE_HANDLE get_handle() const override { return handle_; }

 private:
  ReactorRelay(const ReactorRelay&) = delete;
  ReactorRelay& operator=(const ReactorRelay&) = delete;

  void WaitLoop(void* eventHandle);

  std::atomic<ACE_Event_Handler*> target_;
  ACE_HANDLE handle_;  // registered with the reactor
  int eventFd_;        // owned, only for an event source
  void* waiterEvent_;  // the event the waiting thread sleeps on
  std::function<bool(ACE_HANDLE)> drain_;
  std::atomic<bool> stopping_;
  std::thread waiter_;
};

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_REACTORRELAY_H_
