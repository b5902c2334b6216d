// The lock under which the library's process-wide singletons are created.
#ifndef COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_
#define COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_

#include <atomic>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

namespace Kelvane {
namespace internal {

// One of ACE's singleton locks, fetched once; null if ACE has none to give
// (during its own start-up or shutdown). ACE fills a caller's pointer after
// an unlocked test of it, so the one fetch happens inside a function-local
// static's initialisation, which orders it before every use on every thread.
ACE_Thread_Mutex* SingletonLock();

// The double-checked creation of a process-wide object: what `slot` holds,
// or what `make()` returns, stored there by the first caller under the
// singleton lock. `slot` is atomic so that the unlocked first test is an
// acquire read of a fully built object. Null when there is no lock.
template <typename T, typename Make>
T* CreateOnce(std::atomic<T*>& slot, Make make) {
  T* object = slot.load(std::memory_order_acquire);
  if (object != nullptr) return object;
  ACE_Thread_Mutex* lock = SingletonLock();
  if (lock == nullptr) return nullptr;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *lock, nullptr);
  object = slot.load(std::memory_order_relaxed);
  if (object == nullptr) {
    object = make();
    slot.store(object, std::memory_order_release);
  }
  return object;
}

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_SINGLETONLOCK_H_
