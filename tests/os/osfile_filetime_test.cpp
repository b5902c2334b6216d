#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "common/os/osfile.h"

#include "support/civil.h"
#include "support/scopedtz.h"

namespace {

using comtest::ScopedTZ;
using comtest::UtcSeconds;

ACE_UINT64 FileTime(int64_t unixSeconds, int ms) {
  return static_cast<ACE_UINT64>(unixSeconds + 11644473600LL) * 10000000ULL +
         static_cast<ACE_UINT64>(ms) * 10000ULL;
}

TEST(OSFileTimes, EpochConstants) {
  // The file time of 1970-01-01 UTC as the platform documents it.
  EXPECT_EQ(116444736000000000ULL, Kelvane::kFileTimeUnixEpoch);
  ScopedTZ tz("UTC");
  BDateTime epoch;
  ASSERT_TRUE(Kelvane::UTCToBDateTime(Kelvane::kFileTimeUnixEpoch, epoch));
  EXPECT_STREQ("01/01/1970 00:00:00.0000", epoch.ToString().c_str());
  ASSERT_TRUE(Kelvane::UTCToBDateTime(0, epoch));
  EXPECT_STREQ("01/01/1601 00:00:00.0000", epoch.ToString().c_str());
}

// Local wall times on both sides of daylight-saving changes and inside the
// skipped and repeated hours. `back` is what the file time reads as locally:
// the same text, except for a skipped time, which lands after the gap.
TEST(OSFileTimes, LocalToFileTimeAndBack) {
  struct Row {
    const char* zone;
    const char* local;
    int64_t utc;  // expected instant, seconds since 1970
    int ms;
    const char* back;
  } rows[] = {
      {"UTC", "20240315 143005.123", UtcSeconds(2024, 3, 15, 14, 30, 5), 123,
       "03/15/2024 14:30:05.0123"},
      // Skipped: read with the winter offset, so 01:30 UTC = 03:30 CEST.
      {"Europe/Berlin", "20240331 023000", UtcSeconds(2024, 3, 31, 1, 30, 0), 0,
       "03/31/2024 03:30:00.0000"},
      // Repeated: the first occurrence, still summer time.
      {"Europe/Berlin", "20241027 023000", UtcSeconds(2024, 10, 27, 0, 30, 0),
       0, "10/27/2024 02:30:00.0000"},
      {"America/New_York", "20240310 023000", UtcSeconds(2024, 3, 10, 7, 30, 0),
       0, "03/10/2024 03:30:00.0000"},
      {"America/New_York", "20241103 013000", UtcSeconds(2024, 11, 3, 5, 30, 0),
       0, "11/03/2024 01:30:00.0000"},
      {"Asia/Kolkata", "20240315 143000", UtcSeconds(2024, 3, 15, 9, 0, 0), 0,
       "03/15/2024 14:30:00.0000"},
      // Half-hour gap and overlap.
      {"Australia/Lord_Howe", "20241006 021500",
       UtcSeconds(2024, 10, 5, 15, 45, 0), 0, "10/06/2024 02:45:00.0000"},
      {"Australia/Lord_Howe", "20240407 014500",
       UtcSeconds(2024, 4, 6, 14, 45, 0), 0, "04/07/2024 01:45:00.0000"},
      // Before the first transition the zone's first rule applies.
      {"Europe/Berlin", "17000101 000000", UtcSeconds(1699, 12, 31, 23, 6, 32),
       0, "01/01/1700 00:00:00.0000"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.zone) + " " + r.local);
    ScopedTZ tz(r.zone);
    BDateTime local(r.local);
    ASSERT_TRUE(local.IsValid());
    ACE_UINT64 ft = 0;
    ASSERT_TRUE(Kelvane::BDateTimeToUTC(local, ft));
    EXPECT_EQ(FileTime(r.utc, r.ms), ft);
    BDateTime back;
    ASSERT_TRUE(Kelvane::UTCToBDateTime(ft, back));
    EXPECT_STREQ(r.back, back.ToString().c_str());
    EXPECT_EQ(BTime::Millisecond, back.GetTime().GetPrecision());
  }
}

// Every quarter hour of 2024: a local time converts to an instant that
// reads back as the same wall time, or, in a skipped interval, as the time
// one daylight shift later; a repeated time resolves to its first
// occurrence. The number of quarter hours in gaps is checked per zone.
TEST(OSFileTimes, QuarterHourSweepThroughAYear) {
  struct Row {
    const char* zone;
    int shift_minutes;
    int skipped_quarters;
  } rows[] = {
      {"UTC", 60, 0},
      {"Europe/Berlin", 60, 4},
      {"America/New_York", 60, 4},
      {"Asia/Kolkata", 60, 0},
      {"Australia/Lord_Howe", 30, 2},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.zone);
    ScopedTZ tz(r.zone);
    int skipped = 0;
    int failures = 0;
    for (int64_t day = comtest::DaysFromCivil(2024, 1, 1);
         day < comtest::DaysFromCivil(2025, 1, 1); ++day) {
      comtest::Civil c = comtest::CivilFromDays(day);
      for (int q = 0; q < 96 && failures < 5; ++q) {
        BDateTime local(BDate(static_cast<unsigned>(c.y), c.m, c.d),
                        BTime(q / 4, q % 4 * 15, 0));
        ACE_UINT64 ft = 0;
        ASSERT_TRUE(Kelvane::BDateTimeToUTC(local, ft));
        BDateTime back;
        ASSERT_TRUE(Kelvane::UTCToBDateTime(ft, back));
        time_t const instant =
            static_cast<time_t>(ft / 10000000ULL - 11644473600ULL);
        if (back == local) {
          // First occurrence: one shift earlier must not read the same.
          time_t earlier = instant - r.shift_minutes * 60;
          struct tm tm;
          ASSERT_NE(nullptr, localtime_r(&earlier, &tm));
          if (tm.tm_hour * 4 + tm.tm_min / 15 == q && tm.tm_min % 15 == 0 &&
              tm.tm_mday == static_cast<int>(c.d)) {
            ADD_FAILURE() << "not the first occurrence: "
                          << local.ToString().c_str();
            ++failures;
          }
          continue;
        }
        ++skipped;
        BDateTime shifted(local);
        shifted += BTime(static_cast<unsigned>(r.shift_minutes * 60000));
        if (!(back == shifted)) {
          ADD_FAILURE() << local.ToString().c_str() << " came back as "
                        << back.ToString().c_str();
          ++failures;
        }
      }
    }
    EXPECT_EQ(r.skipped_quarters, skipped);
  }
}

TEST(OSFileTimes, Failures) {
  ScopedTZ tz("America/New_York");
  ACE_UINT64 const untouched = 42;
  struct Row {
    const char* text;
    bool ok;
  } rows[] = {
      {"", false},                 // invalid date
      {"15000101 120000", false},  // before 1601
      {"16010101 000000", true},   // 05:00 UTC, inside the range
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    ACE_UINT64 ft = untouched;
    EXPECT_EQ(r.ok, Kelvane::BDateTimeToUTC(BDateTime(r.text), ft));
    if (!r.ok) {
      EXPECT_EQ(untouched, ft);
    }
  }
  ACE_UINT64 ft = 0;

  // An invalid time counts as midnight.
  BDateTime date_only("20240315");
  ASSERT_FALSE(date_only.IsValid());
  ASSERT_TRUE(Kelvane::BDateTimeToUTC(date_only, ft));
  EXPECT_EQ(FileTime(UtcSeconds(2024, 3, 15, 4, 0, 0), 0), ft);

  BDateTime dt("20240315 120000");
  BDateTime const before = dt;
  // Above the signed range, and before 1601 once made local.
  EXPECT_FALSE(Kelvane::UTCToBDateTime(Kelvane::kFileTimeMax + 1, dt));
  EXPECT_FALSE(Kelvane::UTCToBDateTime(~0ULL, dt));
  EXPECT_FALSE(Kelvane::UTCToBDateTime(0, dt));
  EXPECT_TRUE(before == dt);
  // A local year past 9999 is the invalid date, but the call succeeds.
  ASSERT_TRUE(Kelvane::UTCToBDateTime(
      FileTime(UtcSeconds(10000, 6, 1, 0, 0, 0), 0), dt));
  EXPECT_FALSE(dt.GetDate().IsValid());
  EXPECT_TRUE(dt.GetTime().IsValid());
}

}  // namespace
