#include "support/requesttesting.h"

#include <gtest/gtest.h>

namespace testsupport {
namespace {

// Stops the process-wide schedulers' workers before ACE's teardown at exit.
class StopWorkersAtEnd : public ::testing::Environment {
 public:
  void TearDown() override { ActiveObj::stopAll(true); }
};

::testing::Environment* const kStopWorkers =
    ::testing::AddGlobalTestEnvironment(new StopWorkersAtEnd);

}  // namespace
}  // namespace testsupport
