// SharedEvent: an event that every process of the machine opens by name, the
// Linux counterpart of a named kernel event such as
// "Global\KelvaneRestart_1234".
//
// Where it lives: the name is mapped to one absolute path, kept verbatim as a
// single file name (backslashes included) under /dev/shm:
// "/dev/shm/com-event." + name, with '/' written as "%2F" and '%' as "%25",
// so that no name can reach another folder and no two names share a file.
// The file is always mode 0666 whatever the umask: open to every local user.
//
// The state is one 32-bit futex word in that file, mapped by every opener:
// bit 0 is "signalled", bit 1 "someone may sleep on the word", the upper
// bits a generation counter that every signal and every pulse advances.
// Signal, Reset and Pulse are single atomic updates, followed by a
// FUTEX_WAKE of every sleeper when bit 1 was set; a waiter sets bit 1 and
// sleeps in FUTEX_WAIT on the value it last saw. There is no lock in shared
// memory, so a process killed at any instant (while signalling, pulsing,
// waiting) leaves the word consistent and no other process blocked. A futex
// word was chosen over a robust mutex because a robust mutex only hands the
// lock to the next owner with EOWNERDEAD; the condition variable paired with it
// keeps waiter counts that a dead waiter never takes back, so the next
// broadcast may wake no one. The futex word has nothing to repair.
//
// Lifetime, as a kernel event's: every opener holds a shared flock(2) on the
// file for as long as it has the event open; the kernel drops that lock
// when the holder closes it or dies. Opening and closing are serialised
// between processes by an exclusive flock on /dev/shm (also dropped by the
// kernel with a dead holder). An opener that finds the file and can take
// an exclusive lock on it knows that nobody holds the event, whatever is
// left in it (a last holder killed before it could remove the file, a
// creator killed half-way through setting it up): it sets the file up
// afresh with the requested mode and state, so a new opener never inherits
// a stale signalled event. The last holder to close removes the file.
//
// Pulse wakes every process waiting at that moment (their generation moved)
// and leaves a manual-reset event clear. On an auto-reset event a wait that
// sees it signalled clears it (only one waiter wins each signal); a pulse
// there only clears it and releases no one (nothing here pulses one).
//
// Failure convention: 0 on success, -1 with errno set.
//
// Thread safety: Open and Close must not race with other calls on the same
// object; Signal, Reset, Pulse and the waits may be called from several
// threads (and processes) at once.
//
// Example:
//   Common::internal::SharedEvent ev;
//   if (ev.Open("Global\\KelvaneAllStop", true, false) == 0) {
//     ev.Signal();
//     ev.Close();
//   }
#ifndef COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_
#define COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_

#include <atomic>
#include <cstdint>

#include <ace/SString.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"

namespace Common {
namespace internal {

// The shared state at the start of the file.
struct SharedEventData {
  uint32_t magic;
  uint32_t manualReset;
  std::atomic<uint32_t> word;  // bit 0 signalled, bits 1.. generation
};

class COM_EXPORT SharedEvent {
 public:
  SharedEvent();
  ~SharedEvent();  // closes

  SharedEvent(const SharedEvent&) = delete;
  SharedEvent& operator=(const SharedEvent&) = delete;

  // The file that backs the event called `name`.
  static ACE_CString PathFor(const char* name);

  // Opens the event called `name`, creating it with the given reset mode and
  // initial state when no process has it; an existing event keeps its own
  // mode and state. An empty or null name fails with EINVAL, an open object
  // with EBUSY, a file under the path that is not an event with EINVAL.
  int Open(const char* name, bool manualReset, bool initiallySignaled);
  bool IsOpen() const { return data_ != nullptr; }
  void Close();

  int Signal();
  int Reset();
  int Pulse();
  // Waits until the event is signalled or pulsed (0) or the absolute
  // wall-clock `deadline` passes (-1, errno ETIME); a null deadline waits
  // for ever. A deadline already past polls. An auto-reset event is reset
  // by the wait that sees it signalled.
  int Wait(const ACE_Time_Value* deadline);

  // The raw word, for watchers: read it with Signaled and Generation.
  uint32_t State() const;
  static bool Signaled(uint32_t word) { return (word & 1u) != 0; }
  static uint32_t Generation(uint32_t word) { return word >> 2; }
  // Sleeps while the word still equals `seen`, at most `timeoutMs`
  // milliseconds (or until WakeAll); returns the word then. A manual-reset
  // watcher sees a signal or a pulse as a change of generation.
  uint32_t WaitForChange(uint32_t seen, int timeoutMs);
  // Wakes every sleeper without changing the state (they look again).
  void WakeAll();

 private:
  SharedEventData* data_;
  int ref_;  // holds the shared flock that marks the file in use
  ACE_CString path_;
};

}  // namespace internal
}  // namespace Common

#endif  // COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_
