#include "common/base/cpuscheduler.h"

#include <vector>

#include <gtest/gtest.h>

#include "common/base/simplescheduler.h"

#include "support/requesttesting.h"

namespace {

TEST(CPUScheduler, RacingFirstCallsMakeOneObjectWithOneWorker) {
  const std::vector<CPUScheduler*> seen =
      testsupport::RaceCalls(&CPUScheduler::instance);
  for (CPUScheduler* s : seen) EXPECT_TRUE(s != nullptr && s == seen[0]);
  EXPECT_EQ(1u, seen[0]->thr_count());
  EXPECT_EQ(1, testsupport::Registered("CPUScheduler"));
  EXPECT_NE(static_cast<ActiveObj*>(seen[0]),
            static_cast<ActiveObj*>(SimpleScheduler::Instance()));
}

}  // namespace
