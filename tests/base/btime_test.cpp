#include "common/base/btime.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "support/civil.h"
#include "support/scopedtz.h"

namespace {

const unsigned kNoTime = 0xFFFFFFFFu;

unsigned Ms(const BTime& t) {
  if (!t.IsValid()) return kNoTime;
  return static_cast<unsigned>(
      ((t.GetHour() * 60 + t.GetMinute()) * 60 + t.GetSecond()) * 1000 +
      t.GetMilliSecond());
}

TEST(BTime, ParsesTmAndColonForms) {
  const BTime::Precision H = BTime::Hour, M = BTime::Minute, S = BTime::Second,
                         F = BTime::Millisecond;
  struct Row {
    const char* text;
    unsigned ms;
    BTime::Precision precision;
    const char* dicom;  // AsDICOMString()
  } rows[] = {
      {"14", 50400000, H, "14"},
      {"143005.123456", 52205123, F, "143005.123"},
      {"14.5", 50400500, F, "140000.500"},
      {"14:30:05.25", 52205250, F, "143005.250"},
      {"2400", kNoTime, M, "0000"},
      {"126", 43560000, M, "1206"},  // "%02d%02d": 12, 6
      {"1", kNoTime, F, "000000.000"},
      {"14 30 05", 52205000, S, "143005"},  // scanf skips blanks
      {"14:30 05", 52200000, M, "1430"},    // ':' must follow
      // A ':' anywhere switches every field to the colon form.
      {"1430:", 50400000, H, "14"},
      {"143005 +01.5", 52205500, F, "143005.500"},
      {"000000.5e4", 5000000, F, "012320.000"},
      // More digits than the quick path takes: 16 nines stay below 1.0,
      // 17 round to 1.0 and carry the value past the end of the day.
      {"235959.9999999999999999", 86399999, F, "235959.999"},
      {"235959.99999999999999999", kNoTime, F, "000000.000"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("'") + r.text + "'");
    BTime t(r.text);
    EXPECT_EQ(r.ms, Ms(t));
    EXPECT_EQ(r.precision, t.GetPrecision());
    EXPECT_STREQ(r.dicom, t.AsDICOMString().c_str());
  }
  EXPECT_FALSE(BTime(static_cast<const char*>(nullptr)).IsValid());
  EXPECT_FALSE(BTime(24, 0, 0).IsValid());
  comtest::ScopedTZ tz("UTC");
  BTime t(static_cast<ACE_INT64>(comtest::UtcSeconds(2024, 3, 15, 14, 30, 5)));
  EXPECT_STREQ("14:30:05", t.ToString().c_str());
  EXPECT_EQ(BTime::Second, t.GetPrecision());
}

TEST(BTime, DisplayForms) {
  struct Row {
    const char* text;
    BTime::Precision p;
    bool mark;
    const char* out;
  } rows[] = {
      {"14", BTime::Millisecond, true, "14:--:--.---"},
      {"1430", BTime::Second, true, "14:30:--"},
      {"143005.042", BTime::Minute, true, "14:30"},
      {"143005.042", static_cast<BTime::Precision>(4), true, ""},
      {"2400", BTime::Second, true, "00:00:--"},  // invalid reads as zero
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.text) + " p=" + std::to_string(r.p));
    EXPECT_STREQ(r.out, BTime(r.text).AsString(r.p, r.mark).c_str());
  }
  BTime t("143005.042");
  EXPECT_STREQ("143005.042", t.ToDICOMString(true).c_str());
  EXPECT_STREQ("143005", t.ToDICOMString(false).c_str());
}

TEST(BTime, CopyAndCompare) {
  BTime a("1430");
  BTime c;
  c = a;
  EXPECT_EQ(BTime::Minute, c.GetPrecision());
  EXPECT_EQ(1, c == BTime("14:30:00"));  // precision is not compared
  EXPECT_TRUE(BTime("1429") < a && a > BTime("1429") && !(a < a));
  EXPECT_TRUE(a < BTime());  // -1 sorts last as an unsigned value
}

TEST(BTimeSpan, ArithmeticAndOrdering) {
  struct Row {
    BTimeSpan a, b;
    unsigned sum_days, sum_ms, diff_days, diff_ms;
    int cmp;  // sign of a against b
  } rows[] = {
      {BTimeSpan(0, 86399999), BTimeSpan(0, 1), 1, 0, 0, 86399998, 1},
      {BTimeSpan(0, 1000), BTimeSpan(0, 2000), 0, 3000, 0, 0, -1},  // saturates
      {BTimeSpan(3, 1000), BTimeSpan(1, 2000), 4, 3000, 1, 86399000, 1},
      // Not normalised: 86400000 ms still sorts below a whole day.
      {BTimeSpan(0, 86400000), BTimeSpan(1, 0), 2, 0, 0, 0, -1},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    SCOPED_TRACE(i);
    const Row& r = rows[i];
    BTimeSpan sum(r.a), diff(r.a);
    sum += r.b;
    diff -= r.b;
    EXPECT_TRUE(sum.GetDays() == r.sum_days &&
                sum.GetMilliSeconds() == r.sum_ms && sum == r.a + r.b);
    EXPECT_TRUE(diff.GetDays() == r.diff_days &&
                diff.GetMilliSeconds() == r.diff_ms && diff == r.a - r.b);
    const int want[] = {(r.cmp < 0), (r.cmp <= 0), (r.cmp > 0), (r.cmp >= 0),
                        (r.cmp == 0)};
    const int got[] = {!!(r.a < r.b), !!(r.a <= r.b), !!(r.a > r.b),
                       !!(r.a >= r.b), !!(r.a == r.b)};
    EXPECT_TRUE(std::equal(want, want + 5, got));
  }
  BTimeSpan s(0, 86399999);
  EXPECT_EQ(1, (s + BTime(1u)) == BTimeSpan(1, 0));
  EXPECT_EQ(90061001ul, static_cast<unsigned long>(BTimeSpan(1, 3661001)));
  // 50 days wrap in 32 bits.
  EXPECT_EQ(static_cast<unsigned long>(
                static_cast<uint32_t>(50ull * 86400000ull + 7)),
            static_cast<unsigned long>(BTimeSpan(50, 7)));
}

}  // namespace
