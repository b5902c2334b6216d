#include "common/base/dtvalue.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/pyoracle.h"
#include "support/scopedtz.h"

namespace {

// The shape and offset limits are checked here, fields and calendar days by
// pydicom's DT; prints the fields and the UTC instant of each accepted text.
const char kDTOracle[] = R"PY(
import re, sys, warnings, datetime
from zoneinfo import ZoneInfo
from pydicom.valuerep import DT
warnings.simplefilter("ignore")
zone = ZoneInfo(sys.argv[1] if len(sys.argv) > 1 else "America/New_York")
shape = re.compile(r"(\d{4}|\d{6}|\d{8}|\d{10}|\d{12}|\d{14}|\d{14}\.\d{1,6})([+-]\d{4})?")
for line in sys.stdin:
    t = line[:-1]
    m = shape.fullmatch(t)
    try:
        v = DT(t) if m else None
    except (ValueError, OverflowError):
        v = None
    off = None
    if v is not None and m.group(2):
        mins = int(t[-2:])
        off = int(t[-4:-2]) * 60 + mins
        if t[-5] == "-":
            off = -off
        if mins > 59 or off > 840 or off < -720:
            v = None
    if v is None:
        print("bad")
        continue
    sec = 60 if len(m.group(1)) >= 14 and t[12:14] == "60" else v.second
    naive = v.replace(tzinfo=None, second=0) + datetime.timedelta(seconds=sec)
    try:
        if off is not None:
            u = naive - datetime.timedelta(minutes=off)
        else:
            u = naive.replace(tzinfo=zone).astimezone(datetime.timezone.utc)
        utc = "%04d%02d%02d%02d%02d%02d.%03d" % (u.year, u.month, u.day,
              u.hour, u.minute, u.second, u.microsecond // 1000)
        if not 1000 <= u.year <= 9999:
            utc = "-"
    except (ValueError, OverflowError):
        utc = "-"
    print("ok %d %d %d %d %d %d %d %s %s" % (v.year, v.month, v.day, v.hour,
          v.minute, sec, v.microsecond, "none" if off is None else off, utc))
)PY";

std::string Two(unsigned v) {
  char b[8];
  std::snprintf(b, sizeof b, "%02u", v % 100);
  return b;
}

// Valid texts of every precision and offset form, then broken variants.
std::vector<std::string> Texts() {
  std::mt19937 rng(18);
  auto pick = [&rng](unsigned lo, unsigned hi) {
    return std::uniform_int_distribution<unsigned>(lo, hi)(rng);
  };
  const char* const offsets[] = {"",      "+0000", "-0500", "+0530", "+1400",
                                 "-1200", "+1345", "-0930", "+0100"};
  std::vector<std::string> out;
  for (int precision = 0; precision <= 11; ++precision) {
    for (const char* off : offsets) {
      for (int k = 0; k < 12; ++k) {
        char y[8];
        std::snprintf(y, sizeof y, "%04u",
                      k % 4 == 0 ? pick(1, 9999) : pick(1900, 2100));
        std::string t = y;
        unsigned const month = pick(1, 12);
        const unsigned fields[] = {month, pick(1, month == 2 ? 29 : 31),
                                   pick(0, 23), pick(0, 59),
                                   k == 5 ? 60u : pick(0, 59)};
        for (int f = 0; f < precision && f < 5; ++f) t += Two(fields[f]);
        if (precision > 5) {
          t += '.';
          for (int d = 0; d < precision - 5; ++d) t += char('0' + pick(0, 9));
        }
        out.push_back(t + off);
      }
    }
  }
  // Field limits one step inside and outside.
  const std::string edges =
      "0000|0001|9999|202400|202413|20240229|20230229|20240431|20240100|"
      "2024010124|202401012360|20240101235961|20241231235960|20240101000000.|"
      "20240101000000.1234567|2024+1400|2024+1401|2024-1200|2024-1201|"
      "2024+0060|2024+01|20240101 | 20240101|2024.5|2024010112.5|"
      "20240101120000,5|2024-0500-0100||+0100|99991231235959.999999-1200|"
      "10000101000000+0100|99991231235959.999999";
  for (size_t at = 0, bar = 0; bar != std::string::npos; at = bar + 1) {
    bar = edges.find('|', at);
    out.push_back(edges.substr(at, bar - at));
  }
  // Mutations of valid texts: a byte replaced, dropped or added.
  const std::string alphabet = "0123456789+-. :Tx";
  size_t const valid = out.size();
  for (size_t i = 0; i < valid; i += 3) {
    std::string t = out[i];
    if (t.empty()) continue;
    size_t const at = pick(0, static_cast<unsigned>(t.size() - 1));
    char const c =
        alphabet[pick(0, static_cast<unsigned>(alphabet.size() - 1))];
    const unsigned how = pick(0, 2);
    if (how == 0) t[at] = c;
    if (how == 1) t.erase(at, 1);
    if (how == 2) t.insert(at, 1, c);
    out.push_back(t);
  }
  return out;
}

std::string UtcText(const BDateTime& dt) {
  if (!dt.IsValid()) return "-";
  char b[40];
  std::snprintf(b, sizeof b, "%s%s.%03d", dt.GetDate().ToString().c_str(),
                dt.GetTime().ToDICOMString(false).c_str(),
                dt.GetTime().GetMilliSecond());
  return b;
}

// Same texts accepted, same fields and UTC instant, text given back as read.
TEST(DTValue, ParseFormatAndUTCAgreeWithPydicom) {
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  comtest::ScopedTZ tz("America/New_York");
  std::vector<std::string> texts = Texts();
  std::vector<std::string> expected;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kDTOracle, texts, expected, why)) << why;
  ASSERT_EQ(texts.size(), expected.size());
  size_t accepted = 0;
  for (size_t i = 0; i < texts.size(); ++i) {
    SCOPED_TRACE("\"" + texts[i] + "\"");
    Kelvane::DTValue v;
    v.year = 7;  // untouched on failure
    bool const ok = Kelvane::ParseDT(texts[i].c_str(), v);
    if (expected[i] == "bad") {
      EXPECT_FALSE(ok);
      EXPECT_EQ(7, v.year);
      continue;
    }
    ASSERT_TRUE(ok) << expected[i];
    ++accepted;
    char got[160];
    std::snprintf(
        got, sizeof got, "ok %d %d %d %d %d %d %u %s %s", v.year, v.month,
        v.day, v.hour, v.minute, v.second, v.microsecond,
        v.hasOffset ? std::to_string(v.offsetMinutes).c_str() : "none",
        UtcText(Kelvane::DTToUTC(v)).c_str());
    EXPECT_EQ(expected[i], got);
    EXPECT_EQ(texts[i], Kelvane::FormatDT(v).c_str());
  }
  EXPECT_GT(accepted, texts.size() / 2);
  EXPECT_GT(texts.size() - accepted, 200u);
}

// A local value takes the zone rules of its own date, whatever today is.
TEST(DTValue, LocalValuesUseTheirOwnDatesRules) {
  comtest::ScopedTZ tz("Europe/Berlin");
  struct Row {
    const char* text;
    const char* utc;
  } const rows[] = {
      {"20240115120000", "20240115110000.000"},
      {"20240715120000", "20240715100000.000"},
      {"20241027023000", "20241027003000.000"},  // repeated hour: first one
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    Kelvane::DTValue v;
    ASSERT_TRUE(Kelvane::ParseDT(r.text, v));
    EXPECT_EQ(r.utc, UtcText(Kelvane::DTToUTC(v)));
  }
  EXPECT_FALSE(Kelvane::DTToUTC(Kelvane::DTValue()).IsValid());
  EXPECT_EQ("", std::string(Kelvane::FormatDT(Kelvane::DTValue()).c_str()));
  Kelvane::DTValue v;
  EXPECT_FALSE(Kelvane::ParseDT(nullptr, v));
}

}  // namespace
