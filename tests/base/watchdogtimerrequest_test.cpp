// The watchdog ends the process: every case runs in a child (death test).
#include "common/base/watchdogtimerrequest.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <ace/Reactor.h>
#include <ace/Thread.h>

#include <gtest/gtest.h>

#include "support/requesttesting.h"

namespace {

// Counts the watchdog requests its workers have run.
class Watched : public ActiveObj {
 public:
  explicit Watched(const char* name) : ActiveObj(name, 100) {
    ActiveObj::SetLoggingEnabled(false);
    run(1, 0);
  }
  // Queues work that sleeps 0.9 s, or forever.
  void Busy(bool forever) {
    MethodRequest::Activate(
        MethodRequestAutoPtr(new testsupport::CallRequest(
            this, "Work",
            [forever] {
              do {
                std::this_thread::sleep_for(std::chrono::milliseconds(900));
              } while (forever);
              return 0;
            })),
        Kelvane::NORMAL_PRIORITY);
  }
  std::atomic<int> watchdogRuns{0};

 protected:
  void commandExecuted(MethodRequest& request) override {
    watchdogRuns += std::strcmp(request.GetName(), "WatchDogTimerRequest") == 0;
  }
};

// Runs the reactor loop on this thread for at most `seconds`.
void RunReactorFor(int seconds) {
  ACE_Reactor* reactor = ACE_Reactor::instance();
  reactor->owner(ACE_Thread::self());
  reactor->reset_reactor_event_loop();
  ACE_Time_Value limit(seconds);
  reactor->run_reactor_event_loop(limit);
}

TEST(WatchDogTimerRequest, StuckWorkerEndsTheProcessWithStatusZero) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        Watched* object = new Watched("Stuck");
        object->Busy(true);
        object->ActivateWatchDogTimer(1, 2);
        RunReactorFor(30);
        std::fprintf(stderr, "the watchdog did not fire\n");
        std::_Exit(3);
      },
      ::testing::ExitedWithCode(0),
      "WatchDogTimerRequest::handle_timeout: No response from Stuck for 2 "
      "seconds\\. Exiting the application!!");
  // First tick after 1 s, its request expires 2 s later, then 5 s of grace.
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_GE(took, std::chrono::seconds(7));
  EXPECT_LT(took, std::chrono::seconds(25));
}

TEST(WatchDogTimerRequest, HealthyObjectKeepsRunning) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Watched* object = new Watched("Healthy");
        object->ActivateWatchDogTimer(1, 2);
        for (int i = 0; i < 4; ++i) object->Busy(false);
        RunReactorFor(5);
        object->stop(false);
        std::fprintf(stderr, "watchdog requests run: %d\n",
                     object->watchdogRuns.load());
        std::_Exit(7);
      },
      ::testing::ExitedWithCode(7), "watchdog requests run: [3-6]\n");
}

}  // namespace
