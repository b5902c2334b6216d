#include "common/base/bdate.h"

#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "common/base/dateutils.h"

#include "support/civil.h"
#include "support/scopedtz.h"

namespace {

struct Ymd {
  unsigned y, m, d;
};

Ymd Of(const BDate& date) {
  Ymd r{};
  date.GetYMD(r.y, r.m, r.d);
  return r;
}

TEST(BDate, ParsesTheAcceptedForms) {
  struct Row {
    const char* text;
    unsigned y, m, d;  // 0/0/0 for no date
  } rows[] = {
      {"20240315", 2024, 3, 15},
      {"20240229", 2024, 2, 29},
      {"20230229", 0, 0, 0},
      {"20231301", 0, 0, 0},
      {"20240431", 0, 0, 0},
      {"20240300", 0, 0, 0},
      {"09991231", 0, 0, 0},  // years before 1000 are not dates
      {"10000101", 1000, 1, 1},
      {"99991231", 9999, 12, 31},
      {"00000000", 0, 0, 0},
      {"  20240315  ", 2024, 3, 15},
      {"'20240315'", 2024, 3, 15},
      {" '2024-03-15' ", 2024, 3, 15},
      {"2024-03-15", 2024, 3, 15},
      {"2024.03.15", 2024, 3, 15},
      {"2024.03-15", 2024, 3, 15},
      {"2024-03-15T14:30:05", 2024, 3, 15},  // the rest is ignored
      {"2024-03-15 anything", 2024, 3, 15},
      {"20240315x", 0, 0, 0},   // DA must be exactly 8
      {"2024315", 0, 0, 0},     // too short
      {"2024-3-15", 0, 0, 0},   // second separator not at 7
      {"2024-03-1", 0, 0, 0},   // length not above 9
      {"24-03-2015", 0, 0, 0},  // first separator not at 4
      {"03/15/2024", 2024, 3, 15},
      {"3/15/2024", 2024, 3, 15},
      {"1/2/2020", 2020, 1, 2},
      {"03/15/2024 14:30", 2024, 3, 15},
      {"2024/03/15", 0, 0, 0},  // US order: month 2024
      {"03/152024x", 0, 0, 0},  // one slash only
      {"13/01/2024", 0, 0, 0},
      {"02/29/2023", 0, 0, 0},
      {" +3/ 15/2024", 2024, 3, 15},  // atoi skips blanks, takes signs
      {"-3/15/20240", 0, 0, 0},
      {"'2024031'", 0, 0, 0},  // 7 inside the quotes
      {"'", 0, 0, 0},
      {"        ", 0, 0, 0},
      {"", 0, 0, 0},
      {"2024 315", 2024, 3, 15},  // month field " 3": atoi skips it
      {"20240 15", 0, 0, 0},      // month field "0 " is 0
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string("'") + r.text + "'");
    BDate date(r.text);
    Ymd got = Of(date);
    EXPECT_EQ(r.y, got.y);
    EXPECT_EQ(r.m, got.m);
    EXPECT_EQ(r.d, got.d);
    EXPECT_EQ(r.y != 0, date.IsValid());
  }
  EXPECT_FALSE(BDate(static_cast<const char*>(nullptr)).IsValid());
}

TEST(BDate, InvalidValueReadsAsZero) {
  BDate none;
  EXPECT_FALSE(none.IsValid());
  EXPECT_STREQ("00000000", none.ToString().c_str());
  EXPECT_STREQ("BAD", none.GetMonthString());
  EXPECT_EQ(0u, none.GetYear());
  EXPECT_EQ(0u, none.GetMonth());
  EXPECT_EQ(0u, none.GetDay());
  char buf[9];
  none.ToString(buf);
  EXPECT_STREQ("00000000", buf);
}

TEST(BDate, NumericConstructors) {
  struct Row {
    unsigned scalar;
    bool valid;
  } rows[] = {
      {0, false},      {364877, false},  {364878, true},       {719163, true},
      {3652059, true}, {3652060, false}, {0xFFFFFFFFu, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.scalar);
    BDate d(r.scalar);
    EXPECT_EQ(r.valid, d.IsValid());
    EXPECT_EQ(r.valid ? r.scalar : 0u, static_cast<unsigned>(d - BDate()));
  }
  EXPECT_EQ(730120, BDate(2000u, 1u, 1u) - BDate());
  EXPECT_FALSE(BDate(2023u, 2u, 29u).IsValid());
  BDate d(2024u, 3u, 15u);
  d.SetYMD(2024, 2, 30);
  EXPECT_FALSE(d.IsValid());
}

TEST(BDate, FromStringUsesScanfFields) {
  struct Row {
    const char* text;
    const char* out;
  } rows[] = {
      {"20240315", "20240315"},    {"2024 3 5", "20240305"},
      {"2024-03-15", "00000000"},  // month "-0", day 3: not a date
      {"202403", "00000000"},      // day stays 0
      {"x", "00000000"},           {"", "00000000"},
      {"20240315999", "20240315"}, {"+2024+3+5", "00000000"},  // year "+202"
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    BDate d(20000101u);
    d.FromString(r.text);
    EXPECT_STREQ(r.out, d.ToString().c_str());
  }
}

TEST(BDate, DayOfWeekAndMonthNames) {
  EXPECT_EQ(5u, BDate("20000101").GetDayofWeek());
  EXPECT_EQ(0u, BDate("20000103").GetDayofWeek());
  EXPECT_EQ(3u, BDate("19700101").GetDayofWeek());
  const char* names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (unsigned m = 1; m <= 12; ++m) {
    EXPECT_STREQ(names[m - 1], BDate(2024u, m, 1u).GetMonthString());
  }
}

TEST(BDate, ArithmeticAndComparison) {
  BDate d("20240228");
  BDate& post = d++;
  EXPECT_EQ(&d, &post);  // the postfix form returns the object itself
  EXPECT_STREQ("20240229", post.ToString().c_str());
  ++d;
  EXPECT_STREQ("20240301", d.ToString().c_str());
  --d;
  EXPECT_STREQ("20240229", d.ToString().c_str());
  d += 366;
  EXPECT_STREQ("20250301", d.ToString().c_str());
  d -= 365 + 366;
  EXPECT_STREQ("20230301", d.ToString().c_str());
  EXPECT_EQ(-366, BDate("20230301") - BDate("20240301"));
  EXPECT_EQ(1, BDate("20240315") == BDate("2024-03-15"));
  EXPECT_EQ(0, BDate("20240315") == BDate("2024-03-16"));
  BDate lo("20240315"), hi("20240316");
  EXPECT_TRUE(lo < hi && hi > lo && lo <= lo && lo >= lo && !(hi <= lo));
  // No re-validation: stepping off the end leaves an invalid date.
  BDate last("99991231");
  ++last;
  EXPECT_FALSE(last.IsValid());
  EXPECT_STREQ("100000101", last.ToString().c_str());
  char buf[9];
  last.ToString(buf);
  EXPECT_STREQ("10000010", buf);
  last += 400000000;  // a year far past 9999 is cut to the 9-byte buffer
  last.ToString(buf);
  EXPECT_EQ(8u, std::string(buf).size());
}

TEST(BDate, Streams) {
  std::istringstream in("20240315143005\n");
  BDate d;
  in >> d;
  EXPECT_STREQ("20240315", d.ToString().c_str());
  std::string rest;
  std::getline(in, rest);
  EXPECT_EQ("143005", rest);  // only 8 characters were taken
  std::ostringstream out;
  out << d << '|' << BDate();
  EXPECT_EQ("20240315|00000000", out.str());
}

TEST(BDate, FromSecondsUsesTheLocalDate) {
  struct Row {
    const char* zone;
    int64_t seconds;
    const char* date;
  } rows[] = {
      {"UTC", 0, "19700101"},
      {"Australia/Lord_Howe", comtest::UtcSeconds(2024, 1, 15, 13, 0, 0),
       "20240116"},
      {"UTC", comtest::UtcSeconds(999, 12, 31, 0, 0, 0), "00000000"},
      {"UTC", INT64_MAX, "00000000"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.zone) + " " + r.date);
    comtest::ScopedTZ tz(r.zone);
    EXPECT_STREQ(r.date,
                 BDate(static_cast<ACE_INT64>(r.seconds)).ToString().c_str());
  }
  comtest::ScopedTZ tz("UTC");
  EXPECT_EQ(BDate(static_cast<ACE_INT64>(time(nullptr))), BDate::Today());
}

// Every day of the valid range against an independent calendar: the day
// numbers of BDate and of the exported functions, their inverse, the text
// round trip and the weekday.
TEST(BDate, EveryValidDayAgainstIndependentCalendar) {
  int64_t const first = comtest::DaysFromCivil(1000, 1, 1);
  int64_t const last = comtest::DaysFromCivil(9999, 12, 31);
  unsigned const base = 364878;  // day number of 1000-01-01
  int failures = 0;
  char text[9];
  for (int64_t z = first; z <= last && failures < 10; ++z) {
    comtest::Civil c = comtest::CivilFromDays(z);
    unsigned const y = static_cast<unsigned>(c.y);
    unsigned const expected = base + static_cast<unsigned>(z - first);
    BDate date(y, c.m, c.d);
    unsigned gy = 0, gm = 0, gd = 0;
    utl_scalar_to_ymd(static_cast<long>(expected), &gy, &gm, &gd);
    BDate from_scalar(expected);
    unsigned sy = 0, sm = 0, sd = 0;
    from_scalar.GetYMD(sy, sm, sd);
    unsigned const digits[8] = {y / 1000, y / 100 % 10, y / 10 % 10, y % 10,
                                c.m / 10, c.m % 10,     c.d / 10,    c.d % 10};
    for (int i = 0; i < 8; ++i) text[i] = static_cast<char>('0' + digits[i]);
    text[8] = 0;
    BDate parsed(text);
    bool ok = static_cast<unsigned>(date - BDate()) == expected &&
              utl_ymd_to_scalar(y, c.m, c.d) == static_cast<long>(expected) &&
              gy == y && gm == c.m && gd == c.d && sy == y && sm == c.m &&
              sd == c.d && (parsed == date) == 1 &&
              date.GetDayofWeek() == comtest::WeekdayFromDays(z) &&
              date.IsValid();
    if (!ok) {
      ADD_FAILURE() << "day " << text << " (" << expected << ")";
      ++failures;
    }
  }
  EXPECT_EQ(3652059, utl_ymd_to_scalar(9999, 12, 31));
  EXPECT_EQ(last - first, BDate("99991231") - BDate("10000101"));
}

}  // namespace
