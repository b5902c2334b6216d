#include "common/base/dicomrange.h"

#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/pyoracle.h"
#include "support/scopedtz.h"

namespace {

// kind|low|high|single|value: a bound stands for the whole period its
// precision names, a value for its first instant; an empty side is open.
const char kRangeOracle[] = R"PY(
import re, sys, warnings, datetime, calendar
from zoneinfo import ZoneInfo
from pydicom.valuerep import DA, TM, DT
warnings.simplefilter("ignore")
zone = ZoneInfo("Europe/Berlin")
EPOCH = datetime.datetime(1970, 1, 1)
US = datetime.timedelta(microseconds=1)

def parse_da(t):
    if len(t) == 8:
        d = DA(t)
        return (datetime.datetime(d.year, d.month, d.day),
                datetime.datetime(d.year, d.month, d.day) + datetime.timedelta(days=1) - US)
    y = int(t[:4]); m = int(t[4:6]) if len(t) == 6 else None
    if len(t) not in (4, 6) or not t.isdigit() or y == 0 or (m is not None and not 1 <= m <= 12):
        raise ValueError(t)
    if m is None:
        return datetime.datetime(y, 1, 1), datetime.datetime(y, 12, 31, 23, 59, 59, 999999)
    last = calendar.monthrange(y, m)[1]
    return datetime.datetime(y, m, 1), datetime.datetime(y, m, last, 23, 59, 59, 999999)

def unit(body):
    n = len(body)
    if n > 14:
        return datetime.timedelta(microseconds=10 ** (6 - (n - 15)))
    return {10: datetime.timedelta(hours=1), 12: datetime.timedelta(minutes=1),
            14: datetime.timedelta(seconds=1), 8: datetime.timedelta(days=1)}.get(n)

def parse_tm(t):
    if not re.fullmatch(r"\d{2}(\d{2}(\d{2}(\.\d{1,6})?)?)?", t):
        raise ValueError(t)
    v = TM(t)
    start = datetime.datetime(1970, 1, 1, v.hour, v.minute, v.second, v.microsecond)
    return start, start + unit("19700101" + t) - US

def parse_dt(t):
    m = re.fullmatch(r"(\d{4}|\d{6}|\d{8}|\d{10}|\d{12}|\d{14}|\d{14}\.\d{1,6})([+-]\d{4})?", t)
    if not m:
        raise ValueError(t)
    v = DT(t)
    body = t.split("+")[0].split("-")[0]
    naive = v.replace(tzinfo=None)
    if len(body) == 4:
        end = naive.replace(year=naive.year + 1) if naive.year < 9999 else None
    elif len(body) == 6:
        end = naive + datetime.timedelta(days=calendar.monthrange(v.year, v.month)[1])
    else:
        end = naive + unit(body)
    return (naive, v.utcoffset()), (end - US, v.utcoffset())

def micros(x, aware):
    t, off = x
    if not aware:
        return (t - EPOCH) // US
    if off is None:
        off = t.replace(tzinfo=zone).utcoffset()
    return (t - off - EPOCH) // US

def le(a, b, kind):
    if kind != "DT":
        return a <= b
    aware = a[1] is not None or b[1] is not None
    return micros(a, aware) <= micros(b, aware)

for line in sys.stdin:
    kind, low, high, single, value = line[:-1].split("|")
    parse = {"DA": parse_da, "TM": parse_tm, "DT": parse_dt}[kind]
    try:
        v = parse(value)[0]
        lo = parse(low)[0] if low else None
        hi = parse(high if single == "0" else low)[1] if (high or single == "1") else None
        ok = (lo is None or le(lo, v, kind)) and (hi is None or le(v, hi, kind))
    except (ValueError, OverflowError, IndexError):
        ok = False
    print(1 if ok else 0)
)PY";

struct Case {
  std::string kind, low, high, value;
  bool single;
};

std::string Range(const Case& c) {
  return c.single ? c.low : c.low + "-" + c.high;
}

// Small pools, so that bounds and values often meet, at every precision.
std::vector<Case> Cases() {
  std::mt19937 rng(18);
  auto pick = [&rng](size_t n) {
    return std::uniform_int_distribution<size_t>(0, n - 1)(rng);
  };
  auto words = [](const std::string& text) {
    std::istringstream in(text);
    return std::vector<std::string>(std::istream_iterator<std::string>(in), {});
  };
  const std::vector<std::string> days = words(
      "2023 2024 202302 202402 202312 20240131 20240201 20240229 20231231 "
      "20240101 20230228");
  const std::vector<std::string> times = words(
      "10 11 23 00 1030 1059 103000 103059 105959.999999 103000.5 "
      "103000.000001 1030.5 25 1060");
  const char* const offsets[] = {"", "", "+0000", "+0100", "-0500", "+0200"};
  auto da = [&]() { return days[pick(days.size())]; };
  auto tm = [&]() { return times[pick(times.size())]; };
  auto dt = [&]() {
    std::string d = days[pick(days.size())];
    if (d.size() == 8 && pick(3) != 0) d += times[pick(times.size())];
    return d + offsets[pick(std::size(offsets))];
  };
  std::vector<Case> out;
  for (int i = 0; i < 3000; ++i) {
    int const k = i % 3;
    auto gen = [&]() { return k == 0 ? da() : k == 1 ? tm() : dt(); };
    Case c;
    c.kind = k == 0 ? "DA" : k == 1 ? "TM" : "DT";
    int const form = static_cast<int>(pick(4));  // A-B, -B, A-, A
    c.single = form == 3;
    c.low = form == 1 ? "" : gen();
    c.high = form == 0 || form == 1 ? gen() : "";
    c.value = gen();
    while (k == 0 && c.value.size() != 8) c.value = gen();  // full dates
    out.push_back(c);
  }
  return out;
}

TEST(DicomRange, GeneratedRangesAgreeWithPydicom) {
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  comtest::ScopedTZ tz("Europe/Berlin");
  std::vector<Case> cases = Cases();
  std::vector<std::string> lines;
  for (const Case& c : cases) {
    lines.push_back(c.kind + "|" + c.low + "|" + c.high + "|" +
                    (c.single ? "1" : "0") + "|" + c.value);
  }
  std::vector<std::string> expected;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kRangeOracle, lines, expected, why)) << why;
  ASSERT_EQ(cases.size(), expected.size());
  size_t matches = 0;
  for (size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    std::string const range = Range(c);
    SCOPED_TRACE(c.kind + " \"" + range + "\" \"" + c.value + "\"");
    bool const got =
        c.kind == "DA" ? Kelvane::MatchDARange(range.c_str(), c.value.c_str())
        : c.kind == "TM"
            ? Kelvane::MatchTMRange(range.c_str(), c.value.c_str())
            : Kelvane::MatchDTRange(range.c_str(), c.value.c_str());
    EXPECT_EQ(expected[i] == "1", got);
    matches += got;
  }
  EXPECT_GT(matches, cases.size() / 5);
  EXPECT_LT(matches, cases.size() * 4 / 5);
}

// Padding, universal matching, malformed texts, midnight, and a "-" that
// may be an offset.
TEST(DicomRange, TextForms) {
  comtest::ScopedTZ tz("UTC");
  struct Row {
    bool (*match)(const char*, const char*);
    const char* range;
    const char* value;
    bool expected;
  } const rows[] = {
      {Kelvane::MatchDARange, "20240101 - 20240131", "20240131 ", true},
      {Kelvane::MatchDARange, "", "", true},
      {Kelvane::MatchDARange, "-", "20240101", false},
      {Kelvane::MatchDARange, "20240101-20240102-20240103", "20240102", false},
      {Kelvane::MatchDARange, "20240101", "2024-01-01", false},
      {Kelvane::MatchTMRange, "2300-0100", "2330", false},
      {Kelvane::MatchTMRange, "2300-", "235960", true},
      {Kelvane::MatchTMRange, "-0000", "000059.999999", true},
      {Kelvane::MatchTMRange, "12+0100", "12", false},
      {Kelvane::MatchDTRange, "20240101-0500", "20240101050000+0000", true},
      {Kelvane::MatchDTRange, "20240101-0500-20240102", "20240102+0000", true},
      {Kelvane::MatchDTRange, "-20240101000000+1400", "20231231100000+0000",
       true},
      {Kelvane::MatchDTRange, "2024-", "99991231235959.999999", true},
      {Kelvane::MatchDTRange, "2024-", "2024+1500", false},
      {nullptr, nullptr, nullptr, false},
  };
  for (const Row* r = rows; r->match != nullptr; ++r) {
    SCOPED_TRACE(std::string(r->range) + " / " + r->value);
    EXPECT_EQ(r->expected, r->match(r->range, r->value));
  }
  EXPECT_FALSE(Kelvane::MatchDTRange(nullptr, "2024"));
  EXPECT_FALSE(Kelvane::MatchTMRange("10", nullptr));
}

}  // namespace
