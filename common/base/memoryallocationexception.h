// Kelvane::MemoryAllocationException: thrown when the heap is exhausted; it
// also keeps the process-wide count of such failures and asks an outside
// supervisor to restart the process when they pile up.
//
// Every construction logs the machine's memory figures at LM_CRITICAL and
// counts one failure. Once the count exceeds GetMaxGlobalAllocationFailures()
// (15 unless changed, so the 16th failure is the first), each further
// failure logs at LM_ALERT and signals the manual-reset, machine-wide event
// "Global\KelvaneRestart_<pid>"; the supervisor watching that event
// restarts the process. The event is a Common::NamedEvent open to every
// local user (see common/namedevent/namedevent.h): it stays signalled
// for as long as the supervisor keeps it open, and vanishes when no process
// has it open, as a kernel event does.
//
// Thread safety: the counters are plain integers without a lock; failures
// raised at the same moment on several threads may lose an increment.
//
// Example:
//   char* p = static_cast<char*>(malloc(n));
//   if (!p) throw Kelvane::MemoryAllocationException("buffer", __FILE__,
//                                                    __LINE__);
#ifndef COM_COMMON_BASE_MEMORYALLOCATIONEXCEPTION_H_
#define COM_COMMON_BASE_MEMORYALLOCATIONEXCEPTION_H_

#include <exception>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

class COM_EXPORT MemoryAllocationException : public std::exception {
 public:
  // Stores `message`, logs it with `file` ("" when null), `line` and the
  // memory figures, then counts the failure
  // (IncrementGlobalAllocationFailures).
  MemoryAllocationException(const char* message, const char* file, int line);
  // Copies count nothing and log nothing.
  MemoryAllocationException(const MemoryAllocationException& other);
  MemoryAllocationException& operator=(const MemoryAllocationException& other);
  virtual ~MemoryAllocationException();

  virtual const char* what() const noexcept override;

  // Counts one failure and fires the restart request when due.
  static void IncrementGlobalAllocationFailures();
  static unsigned GetGlobalAllocationFailures();

  // The restart threshold: failures beyond it signal the restart event.
  static unsigned GetMaxGlobalAllocationFailures();
  static void SetMaxGlobalAllocationFailures(unsigned count);

  // How often a caller should retry an operation that failed with this
  // exception (3 unless changed); stored only.
  static unsigned GetMaxRetryOnAllocationFailures();
  static void SetMaxRetryOnAllocationFailures(unsigned count);

  // The setter stores bytes as given; the getter deliberately returns them
  // shifted right by 10 and then divided by 1000, so the two are not
  // inverse: Set(1048576000) gives 1024, Set(1000) gives 0. Values beyond
  // 32 bits wrap, as the stored field is 32 bits wide.
  static void SetRequiredBufferLength(unsigned long bytes);
  static unsigned GetRequiredBufferLength();

 private:
  static void HandleAllocationFailureIncrement();

  ACE_CString message_;
};

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_MEMORYALLOCATIONEXCEPTION_H_
