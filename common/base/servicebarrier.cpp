#include "common/base/servicebarrier.h"

#include <atomic>

#include <ace/Guard_T.h>

#include "common/base/comlog.h"
#include "common/base/internal/singletonlock.h"

namespace {

std::atomic<ServiceBarrier*> g_barrier{nullptr};

}  // namespace

ServiceBarrier* ServiceBarrier::instance() {
  ServiceBarrier* barrier = Kelvane::internal::CreateOnce(
      g_barrier, [] { return new ServiceBarrier; });
  if (barrier == nullptr) {
    COM_LOG((LM_CRITICAL,
             "ServiceBarrier::instance: Function get_singleton_lock "
             "failed!!!\n"));
  }
  return barrier;
}

void ServiceBarrier::start() { lock_.acquire_write(); }

void ServiceBarrier::end() { lock_.release(); }

void ServiceBarrier::wait() {
  lock_.acquire_read();
  lock_.release();
}
