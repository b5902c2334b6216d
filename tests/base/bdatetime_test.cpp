#include "common/base/bdatetime.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/civil.h"
#include "support/scopedtz.h"

namespace {

using comtest::ScopedTZ;

TEST(BDateTime, ParsesCombinedTexts) {
  const char* const kNone = "00/00/00 00:00:00.0000";
  const BTime::Precision H = BTime::Hour, S = BTime::Second,
                         F = BTime::Millisecond;
  struct Row {
    const char* text;
    const char* shown;  // ToString()
    int valid;          // 2 both parts, 1 the date only, 0 neither
    BTime::Precision precision;
  } rows[] = {
      {"20240315 143005.25", "03/15/2024 14:30:05.0250", 2, F},
      {"2024-03-15T14:30:05", "03/15/2024 14:30:05.0000", 2, S},
      {"'20240315'", kNone, 0, F},  // date part "20240315'"
      {"20240315", "03/15/2024 00:00:00.0000", 1, F},
      {"20240315143005", kNone, 0, F},  // DT needs a blank
      // The first blank splits, before any "T".
      {"2024-03-15T14:30 05", "03/15/2024 05:00:00.0000", 2, H},
      {"20240315 2500", "03/15/2024 00:00:00.0000", 1, BTime::Minute},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("'") + r.text + "'");
    BDateTime dt(r.text);
    EXPECT_STREQ(r.shown, dt.ToString().c_str());
    EXPECT_EQ(r.valid, dt.GetDate().IsValid() + dt.GetTime().IsValid());
    EXPECT_EQ(r.valid == 2, dt.IsValid());
    EXPECT_EQ(r.precision, dt.GetTime().GetPrecision());
  }
  std::ostringstream out;
  out << BDateTime("20240315 143005.123");
  EXPECT_EQ("03/15/2024 14:30:05", out.str());
}

TEST(BDateTime, ShiftOrderAndSpans) {
  struct Row {
    const char* start;
    int delta_ms;
    const char* result;
    BTime::Precision precision;  // adding makes it Millisecond
  } rows[] = {
      {"20240315 233000", 3600000, "03/16/2024 00:30:00.0000",
       BTime::Millisecond},
      // Stepping back before the first valid day leaves an invalid date.
      {"10000101 000000", -1, "00/00/00 23:59:59.0999", BTime::Second},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.start) + " " + std::to_string(r.delta_ms));
    BDateTime dt(r.start);
    if (r.delta_ms > 0) dt += BTime(static_cast<unsigned>(r.delta_ms));
    if (r.delta_ms < 0) dt -= BTime(static_cast<unsigned>(-r.delta_ms));
    EXPECT_STREQ(r.result, dt.ToString().c_str());
    EXPECT_EQ(r.precision, dt.GetTime().GetPrecision());
  }
  BDateTime a("20240315 120000");
  BDateTime b("20240316 110000");
  EXPECT_TRUE(a == BDateTime("2024-03-15T12:00"));  // precision ignored
  EXPECT_EQ(1, (b - a) == BTimeSpan(0, 23 * 3600000));
  EXPECT_EQ(1, (a - b) == BTimeSpan());  // earlier minus later saturates
  unsigned const day = static_cast<unsigned>(BDate("20240315") - BDate());
  EXPECT_EQ(1, (a + b) == BTimeSpan(2 * day + 1, 23 * 3600000));
}

TEST(BDateTime, ZoneConversions) {
  // A skipped local time: read with the winter offset, back after the gap.
  ScopedTZ tz("Europe/Berlin");
  BDateTime utc = BDateTime("20240331 023000").LocalTimeToGMT();
  EXPECT_STREQ("03/31/2024 01:30:00.0000", utc.ToString().c_str());
  EXPECT_EQ(BTime::Millisecond, utc.GetTime().GetPrecision());
  EXPECT_STREQ("03/31/2024 03:30:00.0000", utc.ToLocal().ToString().c_str());
  // Failures: invalid values come back as they are; a valid value before
  // 1601 comes back unchanged from LocalTimeToGMT, invalid from ToLocal.
  EXPECT_STREQ("03/15/2024 00:00:00.0000",
               BDateTime("20240315").LocalTimeToGMT().ToString().c_str());
  BDateTime early("15000601 120000");
  ASSERT_TRUE(early.IsValid());
  EXPECT_TRUE(early.LocalTimeToGMT() == early);
  EXPECT_FALSE(early.ToLocal().GetDate().IsValid());
}

// ToUTC shifts by the bias in force now, whatever the value's date; the
// dated conversion follows each date's own season instead.
TEST(BDateTime, ToUTCUsesTheCurrentBias) {
  ScopedTZ tz("America/New_York");
  long bias = 0;
  ASSERT_TRUE(BDateTime::GetTimeZoneBias(bias));
  ASSERT_TRUE(bias == 240 || bias == 300) << bias;
  for (const char* text : {"20240115 120000", "20240715 120000"}) {
    BDateTime expected(text);
    expected += BTime(static_cast<unsigned>(bias * 60000));
    EXPECT_TRUE(BDateTime(text).ToUTC() == expected) << text;
    EXPECT_EQ(text[5] == '1' ? 17 : 16,
              BDateTime(text).LocalTimeToGMT().GetTime().GetHour());
  }
}

TEST(BDateTime, FromSecondsAndNow) {
  ScopedTZ tz("Australia/Lord_Howe");
  BDateTime dt(
      static_cast<ACE_INT64>(comtest::UtcSeconds(2024, 7, 1, 13, 30, 0)));
  EXPECT_STREQ("07/02/2024 00:00:00.0000", dt.ToString().c_str());
  EXPECT_EQ(BTime::Second, dt.GetTime().GetPrecision());
  BDateTime before(static_cast<ACE_INT64>(time(nullptr)));
  BDateTime now = BDateTime::Now();
  BDateTime after(static_cast<ACE_INT64>(time(nullptr)));
  EXPECT_TRUE(now.IsValid() && before <= now && now <= after);
}

}  // namespace
