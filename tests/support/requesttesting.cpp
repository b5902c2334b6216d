#include "support/requesttesting.h"

#include <gtest/gtest.h>

namespace testsupport {
namespace {

// The process-wide schedulers outlive the tests that start them. Their
// workers are stopped before the process ends, so that ACE's own teardown
// at exit never runs beside a live worker thread.
class StopWorkersAtEnd : public ::testing::Environment {
 public:
  void TearDown() override { ActiveObj::stopAll(true); }
};

::testing::Environment* const kStopWorkers =
    ::testing::AddGlobalTestEnvironment(new StopWorkersAtEnd);

}  // namespace
}  // namespace testsupport
