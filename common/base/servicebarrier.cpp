#include "common/base/servicebarrier.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/comlog.h"
#include "common/base/internal/singletonlock.h"

namespace {

// Atomic so that the unlocked first test of the double-checked creation is
// an acquire read of a fully built barrier.
std::atomic<ServiceBarrier*> g_barrier{nullptr};

}  // namespace

ServiceBarrier* ServiceBarrier::instance() {
  ServiceBarrier* barrier = g_barrier.load(std::memory_order_acquire);
  if (barrier != nullptr) return barrier;

  ACE_Thread_Mutex* lock = Kelvane::internal::SingletonLock();
  if (lock == nullptr) {
    COM_LOG((LM_CRITICAL,
             "ServiceBarrier::instance: Function get_singleton_lock "
             "failed!!!\n"));
    return nullptr;
  }
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *lock, nullptr);
  barrier = g_barrier.load(std::memory_order_relaxed);
  if (barrier == nullptr) {
    barrier = new ServiceBarrier;
    g_barrier.store(barrier, std::memory_order_release);
  }
  return barrier;
}

void ServiceBarrier::start() { lock_.acquire_write(); }

void ServiceBarrier::end() { lock_.release(); }

void ServiceBarrier::wait() {
  lock_.acquire_read();
  lock_.release();
}
