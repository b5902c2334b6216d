#include "common/base/simplescheduler.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/internal/singletonlock.h"

namespace {

// Atomic so that the unlocked first test of the double-checked creation is
// an acquire read of a fully built scheduler.
std::atomic<SimpleScheduler*> g_scheduler{nullptr};

}  // namespace

SimpleScheduler::SimpleScheduler() : ActiveObj("SimpleScheduler", 16384) {
  run(1, 0);
}

SimpleScheduler::~SimpleScheduler() {
  SimpleScheduler* self = this;
  g_scheduler.compare_exchange_strong(self, nullptr);
}

SimpleScheduler* SimpleScheduler::Instance() {
  SimpleScheduler* scheduler = g_scheduler.load(std::memory_order_acquire);
  if (scheduler != nullptr) return scheduler;

  ACE_Thread_Mutex* lock = Kelvane::internal::SingletonLock();
  if (lock == nullptr) return nullptr;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *lock, nullptr);
  scheduler = g_scheduler.load(std::memory_order_relaxed);
  if (scheduler == nullptr) {
    scheduler = new SimpleScheduler;
    g_scheduler.store(scheduler, std::memory_order_release);
  }
  return scheduler;
}

void SimpleScheduler::Destroy() {
  SimpleScheduler* scheduler = g_scheduler.load(std::memory_order_acquire);
  if (scheduler == nullptr) return;
  scheduler->stop(true);
  delete scheduler;
  g_scheduler.store(nullptr, std::memory_order_release);
}
