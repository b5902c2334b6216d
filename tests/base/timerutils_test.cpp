#include "common/base/timerutils.h"

#include <chrono>
#include <regex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/base/internal/timerformat.h"

#include "support/logcapture.h"

namespace {

TEST(TimerUtils, FormatsSecondsAndThreeDigitsOfMilliseconds) {
  struct Row {
    long sec;
    long usec;
    const char* text;
  };
  const Row rows[] = {
      {61, 7000, "61.007 s"},
      {2, 45999, "2.045 s"},
      {86400, 999999, "86400.999 s"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_STREQ(row.text, Kelvane::internal::FormatElapsed(
                               ACE_Time_Value(row.sec, row.usec))
                               .c_str());
  }
}

TEST(TimerUtils, GuardLogsTheScopeWithTheDoubledUnit) {
  testsupport::LogCapture capture;
  {
    TimerGuard guard("Load");
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  ASSERT_EQ(1u, capture.records().size());
  EXPECT_EQ(LM_DEBUG, capture.records()[0].priority);
  std::smatch match;
  const std::string& text = capture.records()[0].text;
  ASSERT_TRUE(std::regex_match(
      text, match, std::regex(R"(Load time: (\d+)\.(\d{3}) s seconds\n)")))
      << text;
  EXPECT_GE(std::stoi(match[1]) * 1000 + std::stoi(match[2]), 30);
}

}  // namespace
