#include "common/base/stringutils.h"

#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> Strs(const std::vector<ACE_CString>& v) {
  std::vector<std::string> out;
  for (const auto& s : v) out.emplace_back(s.c_str(), s.length());
  return out;
}

TEST(StringUtils, WhitespaceEaters) {
  struct Row {
    const char* in;
    const char* left;
    const char* right;
    const char* both;
  } rows[] = {
      {"   \t\n", "", "", ""},
      {" a b ", "a b ", " a b", "a b"},
      {"\v\fx\r", "x\r", "\v\fx", "x"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    ACE_CString l(r.in), rr(r.in), b(r.in);
    Kelvane::EatWhitespaceL(l);
    Kelvane::EatWhitespaceR(rr);
    Kelvane::EatWhitespaceLR(b);
    EXPECT_STREQ(r.left, l.c_str());
    EXPECT_STREQ(r.right, rr.c_str());
    EXPECT_STREQ(r.both, b.c_str());
  }
}

TEST(StringUtils, RemoveFromEnd) {
  struct Row {
    const char* s;
    const char* suffix;
    int rc;
    const char* after;
  } rows[] = {
      {"report.tmp", ".tmp", 0, "report"},
      {"a.tmp.x", ".tmp", -1, "a.tmp.x"},
      {"tmptmp", "tmp", 0, "tmp"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.s) + " - " + r.suffix);
    ACE_CString s(r.s);
    EXPECT_EQ(r.rc, Kelvane::RemoveFromEnd(s, r.suffix));
    EXPECT_STREQ(r.after, s.c_str());
  }
}

TEST(StringUtils, CaseAndNumbers) {
  ACE_CString s("MiXeD 1.2\xe9");
  Kelvane::ToLowerCase(s);
  EXPECT_STREQ("mixed 1.2\xe9", s.c_str());
  Kelvane::ToUpperCase(s);
  EXPECT_STREQ("MIXED 1.2\xe9", s.c_str());

  EXPECT_STREQ("-2147483648", Kelvane::intToString(INT32_MIN).c_str());

  EXPECT_TRUE(Kelvane::isNumeric(""));
  for (const char* bad : {"+1", "1.5", " 1", "\xb2"}) {
    EXPECT_FALSE(Kelvane::isNumeric(bad)) << bad;
  }
}

TEST(StringUtils, FiltersAndTrims) {
  EXPECT_STREQ("|100| 01", (Kelvane::removeLeadingZeros("000") + "|" +
                            Kelvane::removeLeadingZeros("0100") + "|" +
                            Kelvane::removeLeadingZeros(" 01"))
                               .c_str());

  EXPECT_STREQ("123",
               Kelvane::removeNonAlphaAndAlphaNumerics("AB-12.3c").c_str());
  EXPECT_STREQ("AB123c", Kelvane::removeNonAlphaNumerics("AB-12.3c").c_str());
  // Bytes above 0x7F are neither letters nor digits in the classic locale;
  // embedded NULs are dropped, not taken as the end.
  const ACE_CString odd(
      "a\xe9\0001\xff"
      "b",
      6);
  EXPECT_STREQ("a1b", Kelvane::removeNonAlphaNumerics(odd).c_str());
  EXPECT_STREQ("x- | -- x||abc", (Kelvane::trimLeft(" -- x- ", " -") + "|" +
                                  Kelvane::trimRight(" -- x- ", "- ") + "|" +
                                  Kelvane::trimRight("///", "/") + "|" +
                                  Kelvane::trimLeft("abc", ""))
                                     .c_str());
}

TEST(StringUtils, SplitString) {
  struct Row {
    const char* s;
    const char* delim;
    std::vector<std::string> pieces;
  } rows[] = {
      {"a,b,,c", ",", {"a", "b", "", "c"}},
      {"a,", ",", {"a", ""}},
      {"x::::y", "::", {"x", "", "", ":y"}},
      {"a<->b", "<->", {"a", "->b"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.s);
    std::vector<ACE_CString> out;
    EXPECT_EQ(r.pieces.size(), Kelvane::splitString(r.s, r.delim, out));
    EXPECT_EQ(r.pieces, Strs(out));
  }

  std::vector<ACE_CString> out{"keep"};
  EXPECT_EQ(0u, Kelvane::splitString("", ",", out));
  EXPECT_EQ(3u, Kelvane::splitString("1,2", ",", out));
  EXPECT_EQ((std::vector<std::string>{"keep", "1", "2"}), Strs(out));
}

TEST(StringUtils, MatchesWildcardIsARegularExpression) {
  struct Row {
    const char* text;
    const char* pattern;
    bool match;
  } rows[] = {
      {"file.dcm", "*.dcm", true},
      {"fileXdcm", "*.dcm", true},       // '.' keeps its meaning
      {"file.dcm.bak", "*.dcm", false},  // whole text only
      {"ac", "ab?c", true},              // '?' makes 'b' optional
      {"img001", "IMG*", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.text) + " ~ " + r.pattern);
    EXPECT_EQ(r.match, Kelvane::matchesWildcard(r.text, r.pattern));
  }
  EXPECT_THROW(Kelvane::matchesWildcard("a", "a[("), std::regex_error);
}

TEST(StringUtils, CompareStringNoCaseOrdersMaps) {
  Kelvane::CompareStringNoCase less;
  EXPECT_TRUE(less("abc", "ABD"));
  EXPECT_FALSE(less("abc", "ABC"));

  std::map<ACE_CString, int, Kelvane::CompareStringNoCase> m;
  m["LogRoot"] = 1;
  m["LOGROOT"] = 2;
  m["serverpath"] = 3;
  EXPECT_EQ(2u, m.size());
  EXPECT_EQ(2, m["logroot"]);
}

}  // namespace
