#include "common/base/bdate.h"

#include <cstdio>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "common/base/dateutils.h"

#include "support/civil.h"

namespace {

// The date as yyyymmdd, 0 when invalid.
unsigned Ymd(const BDate& date) {
  unsigned y = 0, m = 0, d = 0;
  date.GetYMD(y, m, d);
  return date.IsValid() ? y * 10000 + m * 100 + d : 0;
}

TEST(BDate, ParsesTheAcceptedForms) {
  struct Row {
    const char* text;
    unsigned ymd;  // 0 for no date
  } rows[] = {
      {"20240315", 20240315},
      {"20230229", 0},
      {"09991231", 0},  // years before 1000 are not dates
      {" '2024-03-15' ", 20240315},
      {"2024-03-15T14:30:05", 20240315},
      {"20240315x", 0},  // DA must be exactly 8
      {"2024-3-15", 0},  // second separator not at 7
      {"3/15/2024", 20240315},
      {"2024/03/15", 0},           // US order: month 2024
      {" +3/ 15/2024", 20240315},  // atoi skips blanks, takes signs
      {"2024 315", 20240315},      // month field " 3": atoi skips it
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("'") + r.text + "'");
    EXPECT_EQ(r.ymd, Ymd(BDate(r.text)));
  }
  EXPECT_FALSE(BDate(static_cast<const char*>(nullptr)).IsValid());
}

TEST(BDate, NumericConstructorsAndInvalidValue) {
  for (unsigned scalar : {364877u, 364878u, 3652059u, 3652060u, ~0u}) {
    bool const valid = scalar >= 364878u && scalar <= 3652059u;
    BDate d(scalar);
    EXPECT_EQ(valid, d.IsValid()) << scalar;
    EXPECT_EQ(valid ? scalar : 0u, static_cast<unsigned>(d - BDate()));
  }
  BDate d(2024u, 3u, 15u);
  d.SetYMD(2024, 2, 30);
  EXPECT_FALSE(d.IsValid());
  EXPECT_STREQ("00000000", d.ToString().c_str());
  EXPECT_EQ("BADDec", std::string(d.GetMonthString()) +
                          BDate(2024u, 12u, 1u).GetMonthString());
}

TEST(BDate, FromStringUsesScanfFields) {
  struct Row {
    const char* text;
    const char* out;
  } rows[] = {
      {"20240315999", "20240315"},
      {"2024-03-15", "00000000"},  // month "-0", day 3: not a date
      {"+2024+3+5", "00000000"},   // year "+202"
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    BDate d(20000101u);
    d.FromString(r.text);
    EXPECT_STREQ(r.out, d.ToString().c_str());
  }
}

TEST(BDate, ArithmeticComparisonAndStreams) {
  BDate d("20240228");
  BDate& post = d++;
  EXPECT_EQ(&d, &post);  // the postfix form returns the object itself
  EXPECT_EQ(20240229u, Ymd(d));
  d -= 365;
  EXPECT_EQ(20230301u, Ymd(d));
  EXPECT_EQ(-366, BDate("20230301") - BDate("20240301"));
  // No re-validation: stepping off the end leaves an invalid date.
  BDate last("99991231");
  ++last;
  EXPECT_FALSE(last.IsValid());
  EXPECT_STREQ("100000101", last.ToString().c_str());
  std::istringstream in("20240315143005\n");
  in >> d;
  std::string rest;
  std::getline(in, rest);
  EXPECT_EQ("143005", rest);  // only 8 characters were taken
  std::ostringstream out;
  out << d << '|' << BDate();
  EXPECT_EQ("20240315|00000000", out.str());
}

// Every day of the valid range against an independent calendar: the day
// numbers of BDate and of the exported functions, their inverse, the text
// round trip and the weekday.
TEST(BDate, EveryValidDayAgainstIndependentCalendar) {
  int64_t const first = comtest::DaysFromCivil(1000, 1, 1);
  int64_t const last = comtest::DaysFromCivil(9999, 12, 31);
  int failures = 0;
  char text[40];
  for (int64_t z = first; z <= last && failures < 10; ++z) {
    comtest::Civil c = comtest::CivilFromDays(z);
    unsigned const y = static_cast<unsigned>(c.y);
    unsigned const expected = 364878 + static_cast<unsigned>(z - first);
    std::snprintf(text, sizeof text, "%04u%02u%02u", y, c.m, c.d);
    BDate date(y, c.m, c.d);
    unsigned gy = 0, gm = 0, gd = 0;
    utl_scalar_to_ymd(static_cast<long>(expected), &gy, &gm, &gd);
    bool ok = static_cast<unsigned>(date - BDate()) == expected &&
              utl_ymd_to_scalar(y, c.m, c.d) == static_cast<long>(expected) &&
              gy * 10000 + gm * 100 + gd == Ymd(date) &&
              Ymd(BDate(expected)) == Ymd(date) &&
              Ymd(BDate(text)) == y * 10000 + c.m * 100 + c.d &&
              date.GetDayofWeek() == comtest::WeekdayFromDays(z);
    if (!ok) {
      ADD_FAILURE() << "day " << text << " (" << expected << ")";
      ++failures;
    }
  }
}

}  // namespace
