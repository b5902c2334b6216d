#include "common/base/cpuscheduler.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/simplescheduler.h"

#include "support/requesttesting.h"

namespace {

using testsupport::CallRequest;

TEST(CPUScheduler, RacingFirstCallsMakeOneObjectWithOneWorker) {
  const std::vector<CPUScheduler*> seen =
      testsupport::RaceCalls(&CPUScheduler::instance);
  for (CPUScheduler* s : seen) EXPECT_TRUE(s != nullptr && s == seen[0]);
  EXPECT_EQ(1u, seen[0]->thr_count());
  EXPECT_EQ(1, testsupport::Registered("CPUScheduler"));
  EXPECT_STREQ("CPUScheduler", seen[0]->name());
}

TEST(CPUScheduler, ServesApartFromSimpleScheduler) {
  ActiveObj* const targets[] = {SimpleScheduler::Instance(),
                                CPUScheduler::instance()};
  ASSERT_NE(targets[0], targets[1]);
  std::thread::id ran[2];
  for (int i = 0; i < 2; ++i) {
    MethodRequest::ScheduleAndWait(
        MethodRequestPtr(new CallRequest(targets[i], "Where",
                                         [&ran, i] {
                                           ran[i] = std::this_thread::get_id();
                                           return 0;
                                         })),
        Kelvane::NORMAL_PRIORITY);
  }
  EXPECT_NE(ran[0], ran[1]);
  EXPECT_NE(std::this_thread::get_id(), ran[0]);
  EXPECT_NE(std::this_thread::get_id(), ran[1]);
}

}  // namespace
