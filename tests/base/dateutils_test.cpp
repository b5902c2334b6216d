#include "common/base/dateutils.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/scopedtz.h"

namespace {

using comtest::ScopedTZ;

// Day numbers are walked day by day in bdate_test; here the fixed points
// and the pieces.
TEST(DateUtils, CalendarFunctions) {
  struct Row {
    unsigned y, m, d;
    long scalar;
  } rows[] = {{1, 1, 1, 1},         {1970, 1, 1, 719163},
              {2000, 1, 1, 730120}, {9999, 12, 31, 3652059},
              {4, 2, 29, 1155},     {100, 3, 1, 36219}};
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
  for (unsigned year : {1600u, 2000u, 2024u}) EXPECT_EQ(1, utl_isleap(year));
  for (unsigned year : {1900u, 2023u, 2100u}) EXPECT_EQ(0, utl_isleap(year));
  unsigned const before[13] = {0,   0,   31,  61,  92,  122, 153,
                               183, 214, 245, 275, 306, 336};
  for (unsigned month = 1; month <= 12; ++month) {
    EXPECT_EQ(before[month], utl_months_to_days(month)) << month;
  }
  EXPECT_EQ(146097, utl_years_to_days(400));
  EXPECT_EQ(719162, utl_years_to_days(1969));
}

TEST(DateUtils, DicomDateToDisplay) {
  struct Row {
    const char* in;
    const char* out;
  } rows[] = {
      {"20240315", "03/15/2024"}, {"2024031", ""}, {"202403155", ""}, {"", ""},
      {"abcdefgh", "ef/gh/abcd"},  // no digit check
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    char out[16] = {0};
    UtlConvertDICOMString2Date(r.in, out);
    EXPECT_STREQ(r.out, out);
  }
  // Appends at the end of what the buffer holds, then ends at index 10.
  char out[16] = "AB";
  UtlConvertDICOMString2Date("20240315", out);
  EXPECT_STREQ("AB03/15/20", out);
}

TEST(DateUtils, DicomTimeToDisplay) {
  struct Row {
    const char* in;
    const char* out;
  } rows[] = {
      {"143005", "14:30:05"},
      {"143005.25", "14:30:05.25"},
      {"1430", "14:30:"},  // the trailing colon is kept
      {"14300", "14:30:0"},
      {"ab:cdef", "ab::c:def"},
      {"143", ""},  // shorter than the 4 characters needed
      {"", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    char out[32] = {0};
    UtlConvertDICOMString2Time(r.in, out);
    EXPECT_STREQ(r.out, out);
  }
}

TEST(DateUtils, DisplayDateToDicom) {
  struct Row {
    const char* in;
    int ok;
    const char* out;
  } rows[] = {
      {"03/15/2024", 1, "20240315"},
      {"x1/05/2020", 1, "2020105"},   // a non-digit month tens is skipped
      {"03/x5/2020", 1, "2020035"},   // likewise the day tens
      {"03/15-2024", 1, "20240315"},  // in[5] is never looked at
      {"03-15/2024", 0, ""},
      {"0x/15/2024", 0, ""},
      {"03/1x/2024", 0, ""},
      {"03/15/20x4", 0, ""},
      {"2024-03-15", 0, ""},
      {"03/15/24", 0, ""},
      {"03/15/20245", 0, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    char out[16] = {0};
    int rc = UtlConvertString2DICOMDate(r.in, out);
    EXPECT_EQ(r.ok, rc != 0);
    EXPECT_STREQ(r.out, out);
  }
}

TEST(DateUtils, OffsetFromUtcNow) {
  struct Row {
    const char* zone;
    const char* offsets[2];  // either, depending on the season now
  } rows[] = {
      {"UTC", {"0", "0"}},
      {"Asia/Kolkata", {"-19800000", "-19800000"}},
      {"<CET>-1", {"-3600000", "-3600000"}},
      {"<EST>5", {"18000000", "18000000"}},
      {"Europe/Berlin", {"-3600000", "-7200000"}},
      {"America/New_York", {"18000000", "14400000"}},
      {"Australia/Lord_Howe", {"-37800000", "-39600000"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.zone);
    ScopedTZ tz(r.zone);
    std::string got = GetCurrentTimeZoneOffsetFromUTC().c_str();
    EXPECT_TRUE(got == r.offsets[0] || got == r.offsets[1]) << got;
  }
}

TEST(DateUtils, OffsetAtDate) {
  struct Row {
    const char* zone;
    const char* date;
    const char* time;
    const char* offset;
  } rows[] = {
      {"<CET>-1", "20240715", "120000", "-3600000"},
      {"Europe/Berlin", "20240715", "120000", "-7200000"},
      {"Europe/Berlin", "20240331", "015959", "-3600000"},
      {"Europe/Berlin", "20240331", "023000", "-3600000"},  // skipped
      {"Europe/Berlin", "20241027", "023000", "-7200000"},  // repeated
      {"Europe/Berlin", "20241027", "030000", "-3600000"},
      {"America/New_York", "20240310", "023000", "18000000"},  // skipped
      {"America/New_York", "20241103", "013000", "14400000"},  // repeated
      {"Asia/Kolkata", "20240715", "0000", "-19800000"},
      {"Australia/Lord_Howe", "20241006", "021500", "-37800000"},  // skipped
      {"Australia/Lord_Howe", "20240407", "014500", "-39600000"},  // repeated
      {"Europe/Berlin", "2024-07-15", "", "-7200000"},  // no time: midnight
      // Local mean time before the zone's first rule, to the second.
      {"Europe/Berlin", "18000101", "000000", "-3208000"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.zone) + " " + r.date + " " + r.time);
    ScopedTZ tz(r.zone);
    EXPECT_STREQ(r.offset,
                 GetCurrentTimeZoneOffsetFromDate(r.date, r.time).c_str());
  }
}

TEST(DateUtils, OffsetAtDateFallsBackToNow) {
  const char* dates[] = {"", "20240230", "15000101", "16010101"};
  ScopedTZ tz("America/New_York");
  std::string now = GetCurrentTimeZoneOffsetFromUTC().c_str();
  for (const char* date : dates) {
    SCOPED_TRACE(date);
    std::string got = GetCurrentTimeZoneOffsetFromDate(date, "000000").c_str();
    if (std::strcmp(date, "16010101") == 0) {
      // Inside the range; local mean time of New York, -4:56:02.
      EXPECT_EQ("17762000", got);
    } else {
      EXPECT_EQ(now, got);
    }
  }
}

}  // namespace
