#include "common/base/csvparser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

typedef std::vector<std::string> Values;

Values Strs(const std::vector<ACE_CString>& v) {
  Values out;
  for (const auto& s : v) out.emplace_back(s.c_str(), s.length());
  return out;
}

TEST(CSVParser, ParseAllValues) {
  struct Row {
    const char* text;
    int rc;
    Values values;  // read before the end or the fault
  } rows[] = {
      {"\"Value1\", \"Quoted\"\"Value\"", 0, {"Value1", "Quoted\"Value"}},
      {"     ", 0, {}},
      {"\"a\",", 0, {"a"}},
      {"\"a\" ,\t\"\" , \"c\"  ", 0, {"a", "", "c"}},
      {"\"x,\ny\"", 0, {"x,\ny"}},
      {"fooo,barr,wee", -1, {}},
      {"\"a\",b", -1, {"a"}},
      {"\"a\" \"b\"", -1, {}},
      {"\"a\",,\"b\"", -1, {"a"}},
      {"\"a\"\"", -1, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    CSVParser parser(r.text);
    std::vector<ACE_CString> values{"kept"};
    EXPECT_EQ(r.rc, parser.ParseAllValues(values));
    Values expected{"kept"};
    expected.insert(expected.end(), r.values.begin(), r.values.end());
    EXPECT_EQ(expected, Strs(values));
  }
}

TEST(CSVParser, GetNextValueStepsAndStopsAtFault) {
  CSVParser parser(" \"one\" , \"two\" junk");
  ACE_CString value("stale");
  EXPECT_EQ(0, parser.GetNextValue(value));
  EXPECT_STREQ("one", value.c_str());
  // A fault after a value: the value has been read, but the call fails.
  EXPECT_EQ(-1, parser.GetNextValue(value));
  EXPECT_STREQ("two", value.c_str());
  // The position stays on the fault, so the next call fails again.
  EXPECT_EQ(-1, parser.GetNextValue(value));
  EXPECT_STREQ("", value.c_str());

  parser.Reset();
  EXPECT_EQ(0, parser.GetNextValue(value));
  EXPECT_STREQ("one", value.c_str());

  // The end answers 1, again and again; no text is at its end.
  CSVParser done("\"only\""), null_text(nullptr);
  EXPECT_EQ(0, done.GetNextValue(value));
  EXPECT_EQ("1 1 1", std::to_string(done.GetNextValue(value)) + " " +
                         std::to_string(done.GetNextValue(value)) + " " +
                         std::to_string(null_text.GetNextValue(value)));
  EXPECT_STREQ("", value.c_str());
}

TEST(CSVParser, SelfTestPasses) { EXPECT_EQ(0, CSVParser::Test()); }

}  // namespace
