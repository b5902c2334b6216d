#include "common/base/cpuscheduler.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/internal/singletonlock.h"

namespace {

// Atomic so that the unlocked first test of the double-checked creation is
// an acquire read of a fully built scheduler.
std::atomic<CPUScheduler*> g_scheduler{nullptr};

}  // namespace

CPUScheduler::CPUScheduler() : ActiveObj("CPUScheduler", 16384) { run(1, 0); }

CPUScheduler::~CPUScheduler() = default;

CPUScheduler* CPUScheduler::instance() {
  CPUScheduler* scheduler = g_scheduler.load(std::memory_order_acquire);
  if (scheduler != nullptr) return scheduler;

  ACE_Thread_Mutex* lock = Kelvane::internal::SingletonLock();
  if (lock == nullptr) return nullptr;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, *lock, nullptr);
  scheduler = g_scheduler.load(std::memory_order_relaxed);
  if (scheduler == nullptr) {
    scheduler = new CPUScheduler;
    g_scheduler.store(scheduler, std::memory_order_release);
  }
  return scheduler;
}
