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

// Gaps and overlaps are resolved in localzone_test; here the conversion
// around them. A skipped time reads back after the gap.
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

TEST(OSFileTimes, Failures) {
  ScopedTZ tz("America/New_York");
  // An invalid date and a time before 1601 fail and leave the output alone;
  // 1601-01-01 00:00 (local mean time) is inside the range; an invalid time
  // counts as midnight.
  struct Row {
    const char* text;
    ACE_UINT64 want;  // 42: fails
  } rows[] = {
      {"15000101 120000", 42},
      {"16010101 000000", FileTime(UtcSeconds(1601, 1, 1, 4, 56, 2), 0)},
      {"20240315", FileTime(UtcSeconds(2024, 3, 15, 4, 0, 0), 0)}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    ACE_UINT64 ft = 42;
    EXPECT_EQ(r.want != 42, Kelvane::BDateTimeToUTC(BDateTime(r.text), ft));
    EXPECT_EQ(r.want, ft);
  }
  BDateTime dt("20240315 120000");
  BDateTime const before = dt;
  // Above the signed range, and before 1601 once made local.
  for (ACE_UINT64 ft : {Kelvane::kFileTimeMax + 1, ACE_UINT64(0)}) {
    EXPECT_FALSE(Kelvane::UTCToBDateTime(ft, dt)) << ft;
  }
  EXPECT_TRUE(before == dt);
  // A local year past 9999 is the invalid date, but the call succeeds.
  ASSERT_TRUE(Kelvane::UTCToBDateTime(
      FileTime(UtcSeconds(10000, 6, 1, 0, 0, 0), 0), dt));
  EXPECT_FALSE(dt.GetDate().IsValid());
  EXPECT_TRUE(dt.GetTime().IsValid());
}

}  // namespace
