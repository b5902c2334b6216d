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

using testsupport::CallRequest;

// Counts the watchdog requests its workers have run.
class Watched : public ActiveObj {
 public:
  explicit Watched(const char* name) : ActiveObj(name, 100) {}
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
        ActiveObj::SetLoggingEnabled(false);
        Watched* object = new Watched("Stuck");
        object->run(1, 0);
        MethodRequest::Activate(
            MethodRequestAutoPtr(new CallRequest(
                object, "Block",
                [] {
                  for (;;) {
                    std::this_thread::sleep_for(std::chrono::seconds(1));
                  }
                  return 0;
                })),
            Kelvane::NORMAL_PRIORITY);
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
        ActiveObj::SetLoggingEnabled(false);
        Watched* object = new Watched("Healthy");
        object->run(1, 0);
        object->ActivateWatchDogTimer(1, 2);
        // Busy but answering: requests of 0.9 s each.
        for (int i = 0; i < 4; ++i) {
          MethodRequest::Activate(
              MethodRequestAutoPtr(new CallRequest(
                  object, "Work",
                  [] {
                    std::this_thread::sleep_for(std::chrono::milliseconds(900));
                    return 0;
                  })),
              Kelvane::NORMAL_PRIORITY);
        }
        RunReactorFor(5);
        object->stop(false);
        std::fprintf(stderr, "watchdog requests run: %d\n",
                     object->watchdogRuns.load());
        std::_Exit(7);
      },
      ::testing::ExitedWithCode(7), "watchdog requests run: [3-6]\n");
}

}  // namespace
