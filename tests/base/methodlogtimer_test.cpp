#include "common/base/methodlogtimer.h"

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/logcapture.h"

namespace {

std::vector<std::string> Texts(const testsupport::LogCapture& log) {
  std::vector<std::string> out;
  for (const auto& r : log.records()) {
    EXPECT_EQ(LM_DEBUG, r.priority);
    out.push_back(r.text);
  }
  return out;
}

TEST(MethodLogTimer, BeginAndEndLinesWithTheWholeSecondsQuirk) {
  struct Row {
    bool timed;
    int sleepMs;
    const char* end;
  } rows[] = {
      {false, 0, "MethodLogTimer::~MethodLogTimer: Store - End\n"},
      // 1.2 s reads "1.000": the second number is the seconds' upper half.
      {true, 1200, "MethodLogTimer::~MethodLogTimer: Store - End (1.000)\n"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.end);
    testsupport::LogCapture log;
    {
      MethodLogTimer timer("Store", r.timed);
      std::this_thread::sleep_for(std::chrono::milliseconds(r.sleepMs));
    }
    EXPECT_EQ(std::vector<std::string>(
                  {"MethodLogTimer::MethodLogTimer: Store - Begin\n", r.end}),
              Texts(log));
  }
}

}  // namespace
