#include "common/base/servicebarrier.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/requesttesting.h"

namespace {

using testsupport::CallRequest;
using testsupport::WaitUntil;

TEST(ServiceBarrier, RacingFirstCallsGetOneBarrier) {
  const std::vector<ServiceBarrier*> seen =
      testsupport::RaceCalls(&ServiceBarrier::instance);
  for (ServiceBarrier* b : seen) EXPECT_TRUE(b != nullptr && b == seen[0]);
}

TEST(ServiceBarrier, HoldsWorkersBackUntilTheStartPhaseEnds) {
  ServiceBarrier* barrier = ServiceBarrier::instance();
  barrier->wait();  // no start phase: returns at once

  barrier->start();
  struct EndOnExit {
    ServiceBarrier* barrier;
    bool ended = false;
    void End() {
      if (!ended) barrier->end();
      ended = true;
    }
    ~EndOnExit() { End(); }
  } phase{barrier};
  ActiveObj object("Gated", 10);
  ASSERT_EQ(0, object.run(2, 0));
  std::atomic<int> ran{0};
  for (int i = 0; i < 2; ++i) {
    MethodRequest::Activate(
        MethodRequestAutoPtr(new CallRequest(&object, "early",
                                             [&] {
                                               ++ran;
                                               return 0;
                                             })),
        Kelvane::NORMAL_PRIORITY);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const int duringStart = ran.load();
  phase.End();
  EXPECT_EQ(0, duringStart) << "a worker ran before the start phase ended";
  EXPECT_TRUE(WaitUntil([&] { return ran.load() == 2; }));
  object.stop(false);
}

}  // namespace
