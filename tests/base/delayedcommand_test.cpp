#include "common/base/delayedcommand.h"

#include <atomic>
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "support/logcapture.h"
#include "support/requesttesting.h"

namespace {

using testsupport::CallRequest;
using testsupport::WaitUntil;

struct StopOnExit {
  ActiveObj& object;
  ~StopOnExit() { object.stop(true); }
};

TEST(DelayedCommand, RequestReachesTheQueueOnlyAfterItsDelay) {
  testsupport::ReactorLoop reactor;
  ActiveObj object("Delayed", 10);
  StopOnExit stopper{object};
  std::atomic<bool> ran{false};
  MethodRequestPtr request(new CallRequest(&object, "Late", [&] {
    ran = true;
    return 0;
  }));
  const auto scheduled = std::chrono::steady_clock::now();
  MethodRequest::Schedule(request, Kelvane::HIGH_PRIORITY,
                          ACE_Time_Value(0, 300000));
  EXPECT_EQ(0u, object.pending());
  ASSERT_TRUE(WaitUntil([&] { return object.pending() == 1; }));
  EXPECT_GE(std::chrono::steady_clock::now() - scheduled,
            std::chrono::milliseconds(300));
  {
    testsupport::LogCapture capture;
    object.dumpQueue();
    ASSERT_EQ(1u, capture.records().size());
    EXPECT_EQ(
        "ActiveObj::dumpQueue: Command Late queued in position 0, priority = "
        "45\n",
        capture.records()[0].text);
  }
  EXPECT_FALSE(request->IsCompleted());  // Schedule's record is signalled
  ASSERT_EQ(0, object.run(1, 0));
  EXPECT_EQ(0, request->Wait());
  EXPECT_TRUE(ran.load());
}

TEST(DelayedCommand, OwnsItselfAndItsRequestUntilItFires) {
  testsupport::ReactorLoop reactor;
  ActiveObj object("Owner", 10);
  StopOnExit stopper{object};
  ASSERT_EQ(0, object.run(1, 0));
  std::atomic<int> deaths{0};
  std::atomic<bool> ran{false};
  MethodRequest::Activate(MethodRequestAutoPtr(new CallRequest(
                              &object, "Dropped",
                              [&] {
                                ran = true;
                                return 0;
                              },
                              &deaths)),
                          Kelvane::NORMAL_PRIORITY, ACE_Time_Value(0, 200000));
  EXPECT_EQ(0, deaths.load());  // held by the delayed command alone
  EXPECT_TRUE(WaitUntil([&] { return deaths.load() == 1; }));
  EXPECT_TRUE(ran.load());
}

}  // namespace
