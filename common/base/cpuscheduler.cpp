#include "common/base/cpuscheduler.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/internal/singletonlock.h"

namespace {

std::atomic<CPUScheduler*> g_scheduler{nullptr};

}  // namespace

CPUScheduler::CPUScheduler() : ActiveObj("CPUScheduler", 16384) { run(1, 0); }

CPUScheduler::~CPUScheduler() = default;

CPUScheduler* CPUScheduler::instance() {
  return Kelvane::internal::CreateOnce(g_scheduler,
                                       [] { return new CPUScheduler; });
}
