#include "common/base/simplescheduler.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/internal/singletonlock.h"

namespace {

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
  return Kelvane::internal::CreateOnce(g_scheduler,
                                       [] { return new SimpleScheduler; });
}

void SimpleScheduler::Destroy() {
  SimpleScheduler* scheduler = g_scheduler.load(std::memory_order_acquire);
  if (scheduler == nullptr) return;
  scheduler->stop(true);
  delete scheduler;
  g_scheduler.store(nullptr, std::memory_order_release);
}
