#include "common/base/bdatetime.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support/civil.h"
#include "support/scopedtz.h"

namespace {

using comtest::ScopedTZ;

TEST(BDateTime, ParsesCombinedTexts) {
  struct Row {
    const char* text;
    const char* shown;  // ToString()
    bool date_valid;
    bool time_valid;
    BTime::Precision precision;
  } rows[] = {
      {"20240315 143005.25", "03/15/2024 14:30:05.0250", true, true,
       BTime::Millisecond},
      {"2024-03-15T14:30:05", "03/15/2024 14:30:05.0000", true, true,
       BTime::Second},
      {"2024-03-15T14:30:05.5", "03/15/2024 14:30:05.0500", true, true,
       BTime::Millisecond},
      {"03/15/2024 14:30", "03/15/2024 14:30:00.0000", true, true,
       BTime::Minute},
      {"  20240315 14  ", "03/15/2024 14:00:00.0000", true, true, BTime::Hour},
      {"'20240315 1430'", "03/15/2024 14:30:00.0000", true, true,
       BTime::Minute},
      // Only the opening apostrophe goes: the date part is 9 characters.
      {"'20240315'", "00/00/00 00:00:00.0000", false, false,
       BTime::Millisecond},
      {"20240315", "03/15/2024 00:00:00.0000", true, false, BTime::Millisecond},
      {"2024-03-15", "03/15/2024 00:00:00.0000", true, false,
       BTime::Millisecond},
      {"20240315143005", "00/00/00 00:00:00.0000", false, false,
       BTime::Millisecond},
      {"20240315 143005+0100", "03/15/2024 14:30:05.0000", true, true,
       BTime::Second},
      {"20240315 143005 +01.5", "03/15/2024 14:30:05.0500", true, true,
       BTime::Millisecond},
      // The first space splits, before any "T".
      {"2024-03-15T14:30 05", "03/15/2024 05:00:00.0000", true, true,
       BTime::Hour},
      {"20240230 143005", "00/00/00 00:00:00.0000", false, false,
       BTime::Millisecond},
      {"20240315 2500", "03/15/2024 00:00:00.0000", true, false, BTime::Minute},
      {"20240315 ", "03/15/2024 00:00:00.0000", true, false,
       BTime::Millisecond},
      {"", "00/00/00 00:00:00.0000", false, false, BTime::Millisecond},
      {"'", "00/00/00 00:00:00.0000", false, false, BTime::Millisecond},
      {"T", "00/00/00 00:00:00.0000", false, false, BTime::Millisecond},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("'") + r.text + "'");
    BDateTime dt(r.text);
    EXPECT_STREQ(r.shown, dt.ToString().c_str());
    EXPECT_EQ(r.date_valid, dt.GetDate().IsValid());
    EXPECT_EQ(r.time_valid, dt.GetTime().IsValid());
    EXPECT_EQ(r.date_valid && r.time_valid, dt.IsValid());
    EXPECT_EQ(r.precision, dt.GetTime().GetPrecision());
  }
  EXPECT_FALSE(BDateTime(static_cast<const char*>(nullptr)).IsValid());
}

TEST(BDateTime, ShortFormAndStream) {
  BDateTime dt("20240315 143005.123");
  EXPECT_STREQ("03/15/2024 14:30:05.0123", dt.ToString().c_str());
  char buf[20];
  dt.ToString(buf);
  EXPECT_STREQ("03/15/2024 14:30:05", buf);
  std::ostringstream out;
  out << dt;
  EXPECT_EQ("03/15/2024 14:30:05", out.str());
}

TEST(BDateTime, ShiftByTimeOfDay) {
  struct Row {
    const char* start;
    unsigned add_ms;  // 0 for none
    unsigned sub_ms;
    const char* result;
    BTime::Precision precision;
  } rows[] = {
      {"20240315 233000", 3600000, 0, "03/16/2024 00:30:00.0000",
       BTime::Millisecond},
      {"20241231 235959.999", 1, 0, "01/01/2025 00:00:00.0000",
       BTime::Millisecond},
      {"20240315 120000", 3600000, 0, "03/15/2024 13:00:00.0000",
       BTime::Millisecond},
      {"20240315 000000", 0, 3600000, "03/14/2024 23:00:00.0000",
       BTime::Second},
      {"20240301 003000", 0, 3600000, "02/29/2024 23:30:00.0000",
       BTime::Second},
      {"20240315 120000", 0, 3600000, "03/15/2024 11:00:00.0000",
       BTime::Second},
      {"20240315 120000", 0, 43200000, "03/15/2024 00:00:00.0000",
       BTime::Second},
      // Stepping back before the first valid day leaves an invalid date.
      {"10000101 000000", 0, 1, "00/00/00 23:59:59.0999", BTime::Second},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.start) + " +" + std::to_string(r.add_ms) + " -" +
                 std::to_string(r.sub_ms));
    BDateTime dt(r.start);
    if (r.add_ms != 0) dt += BTime(r.add_ms);
    if (r.sub_ms != 0) dt -= BTime(r.sub_ms);
    EXPECT_STREQ(r.result, dt.ToString().c_str());
    EXPECT_EQ(r.precision, dt.GetTime().GetPrecision());
  }
}

TEST(BDateTime, OrderingAndSpans) {
  BDateTime a("20240315 120000");
  BDateTime b("20240316 110000");
  BDateTime a2("2024-03-15T12:00");
  EXPECT_TRUE(a == a2);  // precision differs, value does not
  EXPECT_TRUE(a < b);
  EXPECT_TRUE(b > a);
  EXPECT_TRUE(a <= a2);
  EXPECT_TRUE(a >= a2);
  EXPECT_FALSE(b <= a);
  EXPECT_TRUE(BDateTime("20240315 120001") > a);

  BTimeSpan d = b - a;
  EXPECT_EQ(0u, d.GetDays());
  EXPECT_EQ(23u * 3600000u, d.GetMilliSeconds());
  BTimeSpan none = a - b;  // earlier minus later saturates
  EXPECT_EQ(1, none == BTimeSpan());
  BTimeSpan sum = a + b;
  unsigned const day = static_cast<unsigned>(BDate("20240315") - BDate());
  EXPECT_EQ(2 * day + 1, sum.GetDays());
  EXPECT_EQ(23u * 3600000u, sum.GetMilliSeconds());
}

TEST(BDateTime, ZoneConversions) {
  struct Row {
    const char* zone;
    const char* local;
    const char* utc;  // LocalTimeToGMT(); ToLocal() of it gives `back`
    const char* back;
  } rows[] = {
      {"UTC", "20240315 143005.5", "03/15/2024 14:30:05.0500",
       "03/15/2024 14:30:05.0500"},
      {"Europe/Berlin", "20240115 000000", "01/14/2024 23:00:00.0000",
       "01/15/2024 00:00:00.0000"},
      {"Europe/Berlin", "20240715 000000", "07/14/2024 22:00:00.0000",
       "07/15/2024 00:00:00.0000"},
      {"Europe/Berlin", "20240331 023000", "03/31/2024 01:30:00.0000",
       "03/31/2024 03:30:00.0000"},
      {"Europe/Berlin", "20241027 023000", "10/27/2024 00:30:00.0000",
       "10/27/2024 02:30:00.0000"},
      {"America/New_York", "20241231 200000", "01/01/2025 01:00:00.0000",
       "12/31/2024 20:00:00.0000"},
      {"America/New_York", "20240310 023000", "03/10/2024 07:30:00.0000",
       "03/10/2024 03:30:00.0000"},
      {"America/New_York", "20241103 013000", "11/03/2024 05:30:00.0000",
       "11/03/2024 01:30:00.0000"},
      {"Asia/Kolkata", "20240101 030000", "12/31/2023 21:30:00.0000",
       "01/01/2024 03:00:00.0000"},
      {"Australia/Lord_Howe", "20241006 021500", "10/05/2024 15:45:00.0000",
       "10/06/2024 02:45:00.0000"},
      {"Australia/Lord_Howe", "20240407 014500", "04/06/2024 14:45:00.0000",
       "04/07/2024 01:45:00.0000"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.zone) + " " + r.local);
    ScopedTZ tz(r.zone);
    BDateTime utc = BDateTime(r.local).LocalTimeToGMT();
    EXPECT_STREQ(r.utc, utc.ToString().c_str());
    EXPECT_EQ(BTime::Millisecond, utc.GetTime().GetPrecision());
    EXPECT_STREQ(r.back, utc.ToLocal().ToString().c_str());
  }
}

TEST(BDateTime, ZoneConversionFailuresDiffer) {
  ScopedTZ tz("Europe/Berlin");
  // Invalid values come back as they are from both directions.
  BDateTime date_only("20240315");
  EXPECT_STREQ(date_only.ToString().c_str(),
               date_only.LocalTimeToGMT().ToString().c_str());
  EXPECT_FALSE(date_only.ToLocal().GetTime().IsValid());
  EXPECT_TRUE(date_only.ToLocal().GetDate().IsValid());
  // A valid value the record cannot hold: unchanged one way, invalid the
  // other.
  BDateTime early("15000601 120000");
  ASSERT_TRUE(early.IsValid());
  EXPECT_TRUE(early.LocalTimeToGMT() == early);
  EXPECT_FALSE(early.ToLocal().IsValid());
  EXPECT_FALSE(early.ToLocal().GetDate().IsValid());
}

// ToUTC shifts by the bias in force now, whatever the date: in a zone
// without daylight saving that equals the dated conversion; with it, a
// date in the other season differs by the shift.
TEST(BDateTime, ToUTCUsesTheCurrentBias) {
  {
    ScopedTZ tz("Asia/Kolkata");
    long bias = 0;
    ASSERT_TRUE(BDateTime::GetTimeZoneBias(bias));
    EXPECT_EQ(-330, bias);
    EXPECT_STREQ("12/31/2023 21:30:00.0000",
                 BDateTime("20240101 030000").ToUTC().ToString().c_str());
  }
  {
    ScopedTZ tz("America/New_York");
    long bias = 0;
    ASSERT_TRUE(BDateTime::GetTimeZoneBias(bias));
    ASSERT_TRUE(bias == 240 || bias == 300) << bias;
    BDateTime const jan("20240115 120000");
    BDateTime const jul("20240715 120000");
    for (const BDateTime& dt : {jan, jul}) {
      BDateTime expected(dt);
      expected += BTime(static_cast<unsigned>(bias * 60000));
      EXPECT_TRUE(dt.ToUTC() == expected) << dt.ToUTC().ToString().c_str();
    }
    // The dated conversion follows each date's own season.
    EXPECT_EQ(17, jan.LocalTimeToGMT().GetTime().GetHour());
    EXPECT_EQ(16, jul.LocalTimeToGMT().GetTime().GetHour());
  }
  {
    ScopedTZ tz("UTC");
    BDateTime dt("20240115 120000");
    EXPECT_TRUE(dt.ToUTC() == dt);
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
  EXPECT_TRUE(now.IsValid());
  EXPECT_TRUE(before <= now);
  EXPECT_TRUE(now <= after);
}

}  // namespace
