#include "common/base/internal/reactorrelay.h"

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

#include <ace/Reactor.h>

#include "common/namedevent/internal/sharedevent.h"

namespace Kelvane {
namespace internal {
namespace {

// The waiting thread also looks at its stop flag this often, in case the
// wake-up of Stop() came just before it went to sleep.
constexpr int kStopCheckMs = 100;

}  // namespace

ReactorRelay::ReactorRelay()
    : target_(nullptr),
      handle_(ACE_INVALID_HANDLE),
      eventFd_(-1),
      waiterEvent_(nullptr),
      stopping_(false) {}

ReactorRelay::~ReactorRelay() { Stop(); }

int ReactorRelay::WatchEvent(ACE_Event_Handler* target, void* eventHandle) {
  if (target == nullptr || eventHandle == nullptr || active()) {
    errno = EINVAL;
    return -1;
  }
  eventFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (eventFd_ < 0) return -1;
  handle_ = eventFd_;
  // Everything the reactor's thread reads is set before it can dispatch.
  target_ = target;
  if (ACE_Reactor::instance()->register_handler(
          this, ACE_Event_Handler::READ_MASK) != 0) {
    int saved = errno;
    ::close(eventFd_);
    eventFd_ = -1;
    handle_ = ACE_INVALID_HANDLE;
    target_ = nullptr;
    errno = saved;
    return -1;
  }
  stopping_.store(false);
  waiterEvent_ = eventHandle;
  waiter_ = std::thread(&ReactorRelay::WaitLoop, this, eventHandle);
  return 0;
}

int ReactorRelay::WatchDescriptor(ACE_Event_Handler* target, ACE_HANDLE fd,
                                  std::function<bool(ACE_HANDLE)> drain) {
  if (target == nullptr || fd == ACE_INVALID_HANDLE || active()) {
    errno = EINVAL;
    return -1;
  }
  handle_ = fd;
  drain_ = std::move(drain);
  target_ = target;
  if (ACE_Reactor::instance()->register_handler(
          this, ACE_Event_Handler::READ_MASK) != 0) {
    target_ = nullptr;
    handle_ = ACE_INVALID_HANDLE;
    return -1;
  }
  return 0;
}

void ReactorRelay::Stop() {
  if (!active()) return;
  ACE_Reactor::instance()->remove_handler(
      this, ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
  if (waiter_.joinable()) {
    stopping_.store(true);
    static_cast<Common::internal::SharedEvent*>(waiterEvent_)->WakeAll();
    waiter_.join();
  }
  if (eventFd_ >= 0) ::close(eventFd_);
  eventFd_ = -1;
  handle_ = ACE_INVALID_HANDLE;
  target_ = nullptr;
}

void ReactorRelay::WaitLoop(void* eventHandle) {
  using Common::internal::SharedEvent;
  auto* event = static_cast<SharedEvent*>(eventHandle);
  const uint64_t one = 1;
  uint32_t seen = event->State();
  if (SharedEvent::Signaled(seen)) (void)!::write(eventFd_, &one, sizeof one);
  while (!stopping_.load()) {
    uint32_t now = event->WaitForChange(seen, kStopCheckMs);
    // A new generation is a signal or a pulse, even one already undone by
    // a reset.
    if (SharedEvent::Generation(now) != SharedEvent::Generation(seen))
      (void)!::write(eventFd_, &one, sizeof one);
    seen = now;
  }
}

int ReactorRelay::handle_input(ACE_HANDLE) {
  ACE_Event_Handler* target = target_;
  if (target == nullptr) return 0;
  if (eventFd_ >= 0) {
    uint64_t count = 0;
    if (::read(eventFd_, &count, sizeof count) != sizeof count || count == 0)
      return 0;
  } else if (drain_ && !drain_(handle_)) {
    return 0;
  }
  target->handle_signal(0, nullptr, nullptr);
  return 0;
}

}  // namespace internal
}  // namespace Kelvane
