#include "common/base/shutdownevent.h"

#include <cstdlib>

#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>
#include <ace/Thread_Manager.h>

#include "common/base/comlog.h"
#include "common/base/internal/reactorrelay.h"

namespace {

constexpr char kStopEventName[] = "Global\\KelvaneAllStop";

}  // namespace

ShutDownEvent::ShutDownEvent(const ACE_Time_Value& restartAfter,
                             int exitDelaySeconds)
    : automated_(false),
      graceful_(false),
      exitDelay_(exitDelaySeconds),
      exitThreadGroup_(0),
      eventName_(kStopEventName),
      relay_(new Kelvane::internal::ReactorRelay) {
  COM_LOG((LM_DEBUG,
           "ShutDownEvent::ShutDownEvent: Shutdown event created for %s.\n",
           eventName_.c_str()));
  event_.reset(new Common::NamedEvent(eventName_));
  if (restartAfter != ACE_Time_Value::zero) {
    ACE_Reactor::instance()->schedule_timer(this, nullptr, restartAfter);
  }
  if (relay_->WatchEvent(this, event_->handle()) != 0) {
    COM_LOG((LM_ERROR, "%m\tevent handler cannot be added to Reactor\n"));
  }
}

ShutDownEvent::ShutDownEvent(const ShutDownEvent& other)
    : ACE_Event_Handler(),
      automated_(other.automated_.load()),
      graceful_(other.graceful_.load()),
      exitDelay_(other.exitDelay_),
      exitThreadGroup_(0),
      eventName_(other.eventName_),
      event_(new Common::NamedEvent(other.eventName_)),
      relay_(new Kelvane::internal::ReactorRelay) {}

ShutDownEvent& ShutDownEvent::operator=(const ShutDownEvent& other) {
  if (this != &other) {
    automated_ = other.automated_.load();
    graceful_ = other.graceful_.load();
    exitDelay_ = other.exitDelay_;
    eventName_ = other.eventName_;
    event_.reset(new Common::NamedEvent(other.eventName_));
  }
  return *this;
}

ShutDownEvent::~ShutDownEvent() {
  Unregister();
  if (exitThreadGroup_ != 0) {
    ACE_Thread_Manager::instance()->wait_grp(exitThreadGroup_);
  }
}

void ShutDownEvent::Unregister() {
  ACE_Reactor::instance()->cancel_timer(this, 1);
  relay_->Stop();
}

int ShutDownEvent::handle_signal(int, siginfo_t*, ucontext_t*) {
  COM_LOG((LM_DEBUG, "ShutDownEvent::handle_signal: Event %s was received.\n",
           eventName_.c_str()));
  ACE_Reactor::instance()->end_event_loop();
  return 1;
}

int ShutDownEvent::handle_timeout(const ACE_Time_Value&, const void*) {
  COM_LOG((LM_SHUTDOWN,
           "ShutDownEvent::handle_timeout: AldroServer is being automatically "
           "restarted\n"));
  automated_ = true;
  ACE_Reactor::instance()->end_event_loop();
  return 1;
}

bool ShutDownEvent::isAutomatedShutdown() { return automated_; }

void ShutDownEvent::ShutDown() {
  Unregister();
  if (exitDelay_ != 0 && exitThreadGroup_ == 0) {
    int group = ACE_Thread_Manager::instance()->spawn(
        &ShutDownEvent::ExitProcess, this);
    if (group != -1) exitThreadGroup_ = group;
  }
}

void ShutDownEvent::ShutdownGracefully() { graceful_ = true; }

void* ShutDownEvent::ExitProcess(void* shutDownEvent) {
  auto* self = static_cast<ShutDownEvent*>(shutDownEvent);
  COM_LOG((LM_WARNING,
           "ShutDownEvent::ExitProcess: Restarter shutting down in %d "
           "seconds!\n",
           self->exitDelay_));
  const ACE_Time_Value poll(0, 500000);
  for (int i = 0; i < self->exitDelay_ * 2; ++i) {
    ACE_OS::sleep(poll);
    if (self->graceful_) return nullptr;
  }
  COM_LOG((LM_ERROR,
           "ShutDownEvent::ExitProcess: Restarter shutting down with "
           "exit(-1)!\n"));
  ACE_OS::sleep(1);
  std::exit(-1);
}
