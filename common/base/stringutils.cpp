#include "common/base/stringutils.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <locale>
#include <regex>
#include <string>

namespace Kelvane {

namespace {

inline unsigned char Byte(char c) { return static_cast<unsigned char>(c); }

const std::ctype<char>& ClassicCtype() {
  static const std::ctype<char>& ct =
      std::use_facet<std::ctype<char>>(std::locale::classic());
  return ct;
}

// Keeps the characters whose classic-locale mask has any bit of `mask`.
ACE_CString FilterClassic(const ACE_CString& s, std::ctype_base::mask mask) {
  if (s.length() == 0) return s;
  const std::ctype<char>& ct = ClassicCtype();
  const char* src = s.c_str();
  const size_t n = s.length();
  std::string scratch;
  scratch.reserve(n + 1);
  for (size_t i = 0; i < n; ++i) {
    if (ct.is(mask, src[i])) scratch.push_back(src[i]);
  }
  return ACE_CString(scratch.data(), scratch.size());
}

void FoldCase(std::string& s) {
  for (char& c : s) c = static_cast<char>(std::tolower(Byte(c)));
}

}  // namespace

void EatWhitespaceL(ACE_CString& s) {
  const char* p = s.c_str();
  size_t n = s.length();
  size_t i = 0;
  while (i < n && std::isspace(Byte(p[i]))) ++i;
  if (i > 0) s = s.substring(i);
}

void EatWhitespaceR(ACE_CString& s) {
  const char* p = s.c_str();
  size_t n = s.length();
  while (n > 0 && std::isspace(Byte(p[n - 1]))) --n;
  if (n < s.length()) s = s.substring(0, n);
}

void EatWhitespaceLR(ACE_CString& s) {
  EatWhitespaceR(s);
  EatWhitespaceL(s);
}

int RemoveFromEnd(ACE_CString& s, const ACE_CString& suffix) {
  if (s.length() < suffix.length()) return -1;
  const size_t from = s.length() - suffix.length();
  const ACE_CString::size_type p = s.find(suffix, from);
  if (p == ACE_CString::npos) return -1;
  s = s.substring(0, p);
  return 0;
}

void ToLowerCase(ACE_CString& s) {
  for (size_t i = 0, n = s.length(); i < n; ++i) {
    s[i] = static_cast<char>(std::tolower(Byte(s[i])));
  }
}

void ToUpperCase(ACE_CString& s) {
  for (size_t i = 0, n = s.length(); i < n; ++i) {
    s[i] = static_cast<char>(std::toupper(Byte(s[i])));
  }
}

ACE_CString intToString(int n) {
  char buf[16];
  int len = std::snprintf(buf, sizeof buf, "%d", n);
  return ACE_CString(buf, static_cast<ACE_CString::size_type>(len));
}

bool isNumeric(const ACE_CString& s) {
  const char* p = s.c_str();
  for (size_t i = 0, n = s.length(); i < n; ++i) {
    if (!std::isdigit(Byte(p[i]))) return false;
  }
  return true;
}

ACE_CString removeLeadingZeros(const ACE_CString& s) {
  const char* p = s.c_str();
  size_t i = 0;
  while (i < s.length() && p[i] == '0') ++i;
  return i == 0 ? s : s.substring(i);
}

ACE_CString removeNonAlphaNumerics(const ACE_CString& s) {
  return FilterClassic(s, std::ctype_base::alpha | std::ctype_base::digit);
}

ACE_CString removeNonAlphaAndAlphaNumerics(const ACE_CString& s) {
  return FilterClassic(s, std::ctype_base::digit);
}

unsigned splitString(const ACE_CString& s, const ACE_CString& delimiter,
                     std::vector<ACE_CString>& out) {
  if (s.length() == 0) return 0;
  size_t start = 0;
  ACE_CString::size_type p = s.find(delimiter, start);
  while (p != ACE_CString::npos) {
    out.push_back(s.substring(start, p - start));
    start = p + 1;
    p = s.find(delimiter, start);
  }
  out.push_back(start < s.length() ? s.substring(start) : ACE_CString());
  return static_cast<unsigned>(out.size());
}

ACE_CString trimLeft(const ACE_CString& s, const ACE_CString& chars) {
  const char* p = s.c_str();
  const char* set = chars.c_str();
  const size_t setLen = chars.length();
  size_t i = 0;
  while (i < s.length() && std::memchr(set, p[i], setLen) != nullptr) ++i;
  return i == 0 ? s : s.substring(i);
}

ACE_CString trimRight(const ACE_CString& s, const ACE_CString& chars) {
  const char* p = s.c_str();
  const char* set = chars.c_str();
  const size_t setLen = chars.length();
  size_t n = s.length();
  while (n > 0 && std::memchr(set, p[n - 1], setLen) != nullptr) --n;
  return n == s.length() ? s : s.substring(0, n);
}

bool matchesWildcard(ACE_CString text, ACE_CString pattern) {
  std::string expr(pattern.c_str(), pattern.length());
  for (size_t pos = expr.find('*'); pos != std::string::npos;
       pos = expr.find('*', pos + 2)) {
    expr.replace(pos, 1, ".*");
  }
  const std::regex re(expr, std::regex::ECMAScript);
  return std::regex_match(text.c_str(), text.c_str() + text.length(), re);
}

bool CompareStringNoCase::operator()(ACE_CString a, ACE_CString b) const {
  std::string fa(a.c_str(), a.length());
  std::string fb(b.c_str(), b.length());
  FoldCase(fa);
  FoldCase(fb);
  return std::strcoll(fa.c_str(), fb.c_str()) < 0;
}

}  // namespace Kelvane
