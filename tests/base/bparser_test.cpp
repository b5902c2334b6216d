#include "common/base/bparser.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> Strs(const std::vector<ACE_CString>& v) {
  std::vector<std::string> out;
  for (const auto& s : v) out.emplace_back(s.c_str(), s.length());
  return out;
}

typedef std::vector<std::string> Lines;

TEST(BParser, DeTokenizeAndDeTokenizeEx) {
  struct Row {
    const char* text;
    char delimiter;
    int rc;
    Lines tokens;     // DeTokenize
    Lines tokens_ex;  // DeTokenizeEx
  } rows[] = {
      {"a,b,,c", ',', 1, {"a", "b", "", "c"}, {"a", "b", "", "c"}},
      {"abc", ',', 0, {}, {"abc"}},
      {",", ',', 1, {"", ""}, {"", ""}},
      {" a | b ", '|', 1, {" a ", " b "}, {" a ", " b "}},
      // The terminating NUL is never a delimiter.
      {"abc", '\0', 0, {}, {"abc"}},
      {"x\377y", '\xff', 1, {"x", "y"}, {"x", "y"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.text) + " / " + r.delimiter);
    std::vector<ACE_CString> tokens{"stale"};
    EXPECT_EQ(r.rc, BParser::DeTokenize(tokens, r.text, r.delimiter));
    EXPECT_EQ(r.tokens, Strs(tokens));
    tokens.assign(1, "stale");
    EXPECT_EQ(r.rc, BParser::DeTokenizeEx(tokens, r.text, r.delimiter));
    EXPECT_EQ(r.tokens_ex, Strs(tokens));
  }
  // No text is an empty one.
  std::vector<ACE_CString> tokens{"stale"};
  EXPECT_EQ(0, BParser::DeTokenize(tokens, nullptr, ',') +
                   BParser::DeTokenizeEx(tokens, nullptr, ','));
  EXPECT_EQ(Lines{""}, Strs(tokens));
  ACE_CString out("stale");
  EXPECT_EQ(1, BParser::TrimTokens(out, nullptr, ','));
  EXPECT_STREQ("", out.c_str());
}

TEST(BParser, TrimTokens) {
  struct Row {
    const char* text;
    char delimiter;
    const char* out;
  } rows[] = {
      {" a , \t ,b ", ',', "a,b"},
      {" , ,", ',', ""},
      {"a  b", ' ', "a b"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    ACE_CString out("stale");
    EXPECT_EQ(1, BParser::TrimTokens(out, r.text, r.delimiter));
    EXPECT_STREQ(r.out, out.c_str());
  }
}

TEST(BParser, StripOpaqueComments) {
  struct Row {
    const char* what;
    const char* text;
    Lines lines;
  } rows[] = {
      {"comment, empty and indented",
       "# comment\n\n   indented  \n",
       {"indented"}},
      {"indented hash is kept",
       "key=1\n  # not a comment\r\n#gone\nlast",
       {"key=1", "# not a comment", "last"}},
      {"CRLF and blank lines", "a\r\n\r\nb\r\n", {"a", "", "b"}},
      {"runs of newlines", "\n\n\na\n\n\nb", {"a", "b"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<ACE_CString> lines{"stale"};
    EXPECT_EQ(1, BParser::StripOpaqueComments(r.text, lines));
    EXPECT_EQ(r.lines, Strs(lines));
  }
  // The text ends at its first NUL byte.
  std::vector<ACE_CString> lines;
  BParser::StripOpaqueComments(ACE_CString("a\nb\0c\nd", 7), lines);
  EXPECT_EQ((Lines{"a", "b"}), Strs(lines));
}

}  // namespace
