#include "common/base/dateutils.h"

#include <string>

#include <gtest/gtest.h>

#include "support/scopedtz.h"

namespace {

using comtest::ScopedTZ;

// Day numbers are walked day by day in bdate_test; here the first days.
TEST(DateUtils, CalendarFunctions) {
  struct Row {
    unsigned y, m, d;
    long scalar;
  } rows[] = {{1, 1, 1, 1}, {4, 2, 29, 1155}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.scalar);
    EXPECT_EQ(r.scalar, utl_ymd_to_scalar(r.y, r.m, r.d));
    unsigned y = 0, m = 0, d = 0;
    utl_scalar_to_ymd(r.scalar, &y, &m, &d);
    EXPECT_TRUE(y == r.y && m == r.m && d == r.d) << y << "-" << m << "-" << d;
  }
  // Unchecked fields simply count on; no day number below 1 has a date.
  EXPECT_EQ(utl_ymd_to_scalar(2024, 3, 1), utl_ymd_to_scalar(2024, 2, 30));
  unsigned y = 1, m = 1, d = 1;
  utl_scalar_to_ymd(0, &y, &m, &d);
  EXPECT_EQ(0u, y + m + d);
  EXPECT_EQ(336u, utl_months_to_days(12));
  EXPECT_EQ(719162, utl_years_to_days(1969));
}

TEST(DateUtils, DisplayConversions) {
  struct Row {
    int kind;  // 0 DICOM date to display, 1 DICOM time, 2 display to DICOM
    const char* in;
    const char* out;  // "" when refused
  } rows[] = {
      {0, "20240315", "03/15/2024"},
      {0, "abcdefgh", "ef/gh/abcd"},  // no digit check
      {1, "143005.25", "14:30:05.25"},
      {1, "1430", "14:30:"},  // the trailing colon is kept
      {2, "03/15/2024", "20240315"},
      {2, "x1/05/2020", "2020105"},   // a non-digit month tens is skipped
      {2, "03/15-2024", "20240315"},  // in[5] is never looked at
      {2, "03-15/2024", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    char out[32] = {0};
    if (r.kind == 0) UtlConvertDICOMString2Date(r.in, out);
    if (r.kind == 1) UtlConvertDICOMString2Time(r.in, out);
    if (r.kind == 2) {
      EXPECT_EQ(*r.out != 0, UtlConvertString2DICOMDate(r.in, out) != 0);
    }
    EXPECT_STREQ(r.out, out);
  }
  // Appends at the end of what the buffer holds, then ends at index 10.
  char out[16] = "AB";
  UtlConvertDICOMString2Date("20240315", out);
  EXPECT_STREQ("AB03/15/20", out);
}

TEST(DateUtils, OffsetFromUtcNow) {
  ScopedTZ tz("Australia/Lord_Howe");  // half an hour of summer time
  std::string got = GetCurrentTimeZoneOffsetFromUTC().c_str();
  EXPECT_TRUE(got == "-37800000" || got == "-39600000") << got;
}

TEST(DateUtils, OffsetAtDate) {
  struct Row {
    const char* zone;
    const char* date;
    const char* time;
    const char* offset;  // nullptr: the offset now
  } rows[] = {
      {"<CET>-1", "20240715", "120000", "-3600000"},
      {"Europe/Berlin", "20240331", "023000", "-3600000"},  // skipped
      {"Europe/Berlin", "20241027", "023000", "-7200000"},  // repeated
      {"Europe/Berlin", "2024-07-15", "", "-7200000"},      // no time: midnight
      // Local mean time before the zone's first rule, to the second.
      {"Europe/Berlin", "18000101", "000000", "-3208000"},
      // Outside the record range or no date: the offset now.
      {"America/New_York", "15000101", "000000", nullptr},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.zone) + " " + r.date + " " + r.time);
    ScopedTZ tz(r.zone);
    std::string const now = GetCurrentTimeZoneOffsetFromUTC().c_str();
    EXPECT_EQ(r.offset != nullptr ? r.offset : now,
              GetCurrentTimeZoneOffsetFromDate(r.date, r.time).c_str());
  }
}

}  // namespace
