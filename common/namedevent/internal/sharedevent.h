// SharedEvent: an ACE event that every process of the machine opens by
// name, the Linux counterpart of a named kernel event such as
// "Global\KelvaneRestart_1234".
//
// The event is ACE's process-shared event (ACE_OS::event_init with
// USYNC_PROCESS): its state and its process-shared mutex and condition live
// in a small file mapped by every opener. ACE alone falls short in three
// ways, which this helper makes up for:
//  - ACE takes the name as a file path relative to the working directory,
//    so two processes in different folders would not meet. Here the name is
//    mapped to one absolute path, kept verbatim as a single file name
//    (backslashes included) under /dev/shm: "/dev/shm/com-event." + name,
//    with '/' written as "%2F" and '%' as "%25" so that no name can reach
//    another folder and no two names share a file.
//  - ACE creates the file with mode 0644 less the umask, so other users
//    could not open it; here it is always 0666, open to every local user.
//  - ACE's creator tears the event down (and unlinks it) when it closes,
//    even while other processes still use it. Here the event lives as long
//    as any process has it open, as a kernel event does: the helper creates
//    and initialises the file itself, every opener holds a shared flock(2)
//    on it, and the last one to close removes it. Opening and closing are
//    serialised between processes by an exclusive flock on /dev/shm, so an
//    opener never maps a file that is not fully initialised.
// A file left behind by a process that died keeps its last state and is
// reused by the next opener.
//
// Failure convention: 0 on success, -1 with errno set.
//
// Thread safety: Open and Close must not race with other calls on the same
// object; Signal, Reset, Pulse and Wait may be called from several threads
// (and processes) at once.
//
// Example:
//   Common::internal::SharedEvent ev;
//   if (ev.Open("Global\\KelvaneAllStop", true, false) == 0) {
//     ev.Signal();
//     ev.Close();
//   }
#ifndef COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_
#define COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_

#include <ace/OS_NS_Thread.h>
#include <ace/SString.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"

namespace Common {
namespace internal {

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
  // with EBUSY.
  int Open(const char* name, bool manualReset, bool initiallySignaled);
  bool IsOpen() const { return open_; }
  void Close();

  int Signal();
  int Reset();
  int Pulse();
  // Waits until the event is signalled (0) or the absolute wall-clock
  // `deadline` passes (-1, errno ETIME); a null deadline waits for ever. A
  // deadline already past polls. An auto-reset event is reset by the wait
  // that sees it signalled.
  int Wait(const ACE_Time_Value* deadline);

 private:
  ACE_event_t event_;
  int ref_;  // holds the shared flock that marks the file in use
  ACE_CString path_;
  bool open_;
};

}  // namespace internal
}  // namespace Common

#endif  // COM_COMMON_NAMEDEVENT_INTERNAL_SHAREDEVENT_H_
