// The lock under which the library's process-wide singletons are created.
#ifndef COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_
#define COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_

#include <ace/Thread_Mutex.h>

namespace Kelvane {
namespace internal {

// One of ACE's singleton locks, fetched once; null if ACE has none to give
// (during its own start-up or shutdown). ACE fills a caller's pointer after
// an unlocked test of it, so the one fetch happens inside a function-local
// static's initialisation, which orders it before every use on every thread.
ACE_Thread_Mutex* SingletonLock();

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_
