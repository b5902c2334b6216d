#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <ace/Log_Msg.h>
#include <ace/Reactor.h>
#include <ace/Thread.h>

#include "common/base/activeobj.h"
#include "common/base/simplescheduler.h"

#include "demo.h"

namespace {

// A command on the process-wide scheduler that prints itself when it runs.
class Step : public MethodRequest {
 public:
  explicit Step(const char* name, std::atomic<bool>* gate = nullptr,
                std::atomic<bool>* started = nullptr)
      : name_(name), gate_(gate), started_(started) {}
  ActiveObj* GetActiveObj() override { return SimpleScheduler::Instance(); }
  const char* GetName() override { return name_.c_str(); }

 protected:
  int ExecuteImpl() override {
    if (started_ != nullptr) *started_ = true;
    if (gate_ != nullptr) {
      while (!gate_->load()) std::this_thread::yield();
    }
    std::printf("  ran %s\n", name_.c_str());
    return 0;
  }

 private:
  std::string name_;
  std::atomic<bool>* gate_;
  std::atomic<bool>* started_;
};

// Ends the reactor loop that fired it.
class Wake : public Step {
 public:
  explicit Wake(std::chrono::steady_clock::time_point since)
      : Step("delayed"), since_(since) {}

 protected:
  int ExecuteImpl() override {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - since_);
    std::printf("  ran the delayed request %lld ms after scheduling it\n",
                static_cast<long long>(ms.count()));
    ACE_Reactor::instance()->end_reactor_event_loop();
    return 0;
  }

 private:
  std::chrono::steady_clock::time_point since_;
};

void ActiveObjects() {
  // The per-command and start-up traces would drown the output.
  ACE_Log_Msg* log = ACE_LOG_MSG;
  const unsigned long mask = log->priority_mask(ACE_Log_Msg::PROCESS);
  log->priority_mask(mask & ~(LM_DEBUG | LM_STARTUP), ACE_Log_Msg::PROCESS);
  ActiveObj::SetLoggingEnabled(false);

  // The one worker is held by the first command while the others queue up.
  std::atomic<bool> gate{false};
  std::atomic<bool> started{false};
  MethodRequest::Schedule(
      MethodRequestPtr(new Step("first (holds the worker)", &gate, &started)),
      Kelvane::NORMAL_PRIORITY);
  while (!started) std::this_thread::yield();
  const std::pair<const char*, Kelvane::CommandPriority> queued[] = {
      {"ordinary #1 (30)", Kelvane::NORMAL_PRIORITY},
      {"low (10)", Kelvane::LOW_PRIORITY},
      {"top (60)", Kelvane::TOP_PRIORITY},
      {"ordinary #2 (30)", Kelvane::NORMAL_PRIORITY},
      {"high (45)", Kelvane::HIGH_PRIORITY}};
  std::printf("queued in this order:");
  for (const auto& q : queued) {
    std::printf(" %s;", q.first);
    MethodRequest::Schedule(MethodRequestPtr(new Step(q.first)), q.second);
  }
  std::printf("\n%u waiting on SimpleScheduler, then the worker runs:\n",
              SimpleScheduler::Instance()->pending());
  gate = true;
  MethodRequest::ScheduleAndWait(
      MethodRequestPtr(new Step("last (waited for)")), Kelvane::LOW_PRIORITY);

  // A delayed request waits in a reactor timer; this thread runs the loop.
  std::printf("scheduling a request 250 ms ahead, running the reactor loop\n");
  MethodRequest::Schedule(
      MethodRequestPtr(new Wake(std::chrono::steady_clock::now())),
      Kelvane::NORMAL_PRIORITY, ACE_Time_Value(0, 250000));
  ACE_Reactor* reactor = ACE_Reactor::instance();
  reactor->owner(ACE_Thread::self());
  reactor->reset_reactor_event_loop();
  ACE_Time_Value limit(5);
  reactor->run_reactor_event_loop(limit);

  ActiveObj::stopAll(false);
  std::printf("after stopAll: %zu worker thread(s) left on SimpleScheduler\n",
              SimpleScheduler::Instance()->thr_count());
  SimpleScheduler::Destroy();

  ActiveObj::SetLoggingEnabled(true);
  log->priority_mask(mask, ACE_Log_Msg::PROCESS);
}

}  // namespace

COM_DEMO_SECTION(45, "Active objects, delayed requests and stopAll",
                 ActiveObjects);
