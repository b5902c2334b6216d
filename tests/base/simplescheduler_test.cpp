#include "common/base/simplescheduler.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/requesttesting.h"

namespace {

using testsupport::CallRequest;
using testsupport::WaitUntil;

TEST(SimpleScheduler, RacingFirstCallsMakeOneObjectWithOneWorker) {
  SimpleScheduler::Destroy();
  const std::vector<SimpleScheduler*> seen =
      testsupport::RaceCalls(&SimpleScheduler::Instance);
  for (SimpleScheduler* s : seen) EXPECT_TRUE(s != nullptr && s == seen[0]);
  EXPECT_EQ(1u, seen[0]->thr_count());
  EXPECT_EQ(1, testsupport::Registered("SimpleScheduler"));
}

TEST(SimpleScheduler, DestroyDiscardsTheBacklogAndInstanceStartsAfresh) {
  SimpleScheduler* old = SimpleScheduler::Instance();
  std::atomic<bool> open{false};
  std::atomic<int> started{0};
  testsupport::HoldWorker(old, &open, &started);
  ASSERT_TRUE(WaitUntil([&] { return started.load() == 1; }));
  std::atomic<int> ran{0};
  std::vector<MethodRequestPtr> backlog;
  for (int i = 0; i < 3; ++i) {
    backlog.push_back(MethodRequestPtr(new CallRequest(old, "queued", [&] {
      ++ran;
      return 0;
    })));
    MethodRequest::Schedule(backlog.back(), Kelvane::NORMAL_PRIORITY);
  }
  std::thread destroying(&SimpleScheduler::Destroy);
  ASSERT_TRUE(WaitUntil([&] { return old->pending() == 4; }));  // hang-up
  open = true;
  destroying.join();
  EXPECT_EQ(0, ran.load());
  for (MethodRequestPtr& r : backlog) EXPECT_TRUE(r->IsCompleted());
  EXPECT_EQ(0, testsupport::Registered("SimpleScheduler"));

  SimpleScheduler* fresh = SimpleScheduler::Instance();
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(0u, fresh->pending());
  EXPECT_EQ(1, testsupport::Registered("SimpleScheduler"));
  MethodRequestPtr again(new CallRequest(fresh, "fresh", [&] {
    ++ran;
    return 0;
  }));
  MethodRequest::ScheduleAndWait(again, Kelvane::NORMAL_PRIORITY);
  EXPECT_EQ(1, ran.load());
}

}  // namespace
