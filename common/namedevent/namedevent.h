// Common::NamedEvent: a manual-reset event with a machine-wide name, shared
// by every process and every local user ("Global\KelvaneAllStop").
//
// The event sits on the shared event of common/namedevent/internal: a futex
// word in a file under /dev/shm, mode 0666 whatever the umask. It behaves as
// a kernel event does when processes crash:
//  - it lives while some process has it open; every holder keeps a shared
//    flock(2) on its file, which the kernel drops when the holder closes it
//    or dies, so the next opener after the last holder (closed or killed)
//    gets a fresh, clear event and never a stale signalled one;
//  - no lock lives in shared memory: signal, reset and pulse are single
//    atomic updates of the word followed by a futex wake, and a waiter
//    sleeps on the word without holding anything, so a process killed at
//    any instant (signalling, pulsing, waiting or opening) leaves nobody
//    blocked. Opening is serialised by a flock that the kernel also drops
//    with a dead holder. A robust mutex was not taken: it repairs only the
//    mutex, not the waiter bookkeeping of a condition variable beside it.
//
// pulse() wakes every process waiting at that moment and leaves the event
// clear. handle() is the address of the shared event object (not a kernel
// handle); ShutDownEvent and the reactor relay use it.
//
// Failures throw std::runtime_error with the texts below; nothing else
// throws.
//
// Thread safety: signal, pulse and reset may be called from any thread and
// process at once.
//
// Example:
//   Common::NamedEvent stop("Global\\KelvaneAllStop");
//   stop.signal();  // every process holding a ShutDownEvent ends its loop
#ifndef COM_COMMON_NAMEDEVENT_NAMEDEVENT_H_
#define COM_COMMON_NAMEDEVENT_NAMEDEVENT_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Common {

namespace internal {
class SharedEvent;
}

class COM_EXPORT NamedEvent {
 public:
  // "NamedEvent: Unable to create security attributes" (kept for callers
  // that match it; Linux has no security attributes to fail).
  static const char kSecurityAttributesError[];
  // "NamedEvent: Unable to initialize named event".
  static const char kInitializeError[];

  // Creates (manual-reset, clear) or opens the event called `name`. Throws
  // std::runtime_error(kInitializeError) after an LM_DEBUG record when it
  // cannot be opened (an empty name, no room in /dev/shm, a file there that
  // is not an event).
  explicit NamedEvent(const ACE_CString& name);
  ~NamedEvent();

  // 0 on success, -1 with errno set.
  int signal();
  int pulse();
  int reset();

  void* handle() const;

 private:
  NamedEvent(const NamedEvent&) = delete;
  NamedEvent& operator=(const NamedEvent&) = delete;

  internal::SharedEvent* event_;
};

}  // namespace Common

#endif  // COM_COMMON_NAMEDEVENT_NAMEDEVENT_H_
