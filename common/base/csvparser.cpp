#include "common/base/csvparser.h"

#include <cctype>
#include <cstring>

namespace {

inline bool IsSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

CSVParser::CSVParser(const char* text)
    : start_(text == nullptr ? "" : text), current_(start_) {}

void CSVParser::Reset() { current_ = start_; }

void CSVParser::SkipWhiteSpace() {
  while (*current_ != '\0' && IsSpace(*current_)) ++current_;
}

int CSVParser::GetNextValue(ACE_String_Base<char>& value) {
  value.clear();
  SkipWhiteSpace();
  if (*current_ == '\0') return 1;
  if (*current_ != '"') return -1;
  const char* p = current_ + 1;
  for (;;) {
    // Copy the run up to the next quote in one piece.
    const char* quote = std::strchr(p, '"');
    if (quote == nullptr) {
      current_ = p + std::strlen(p);
      return -1;
    }
    if (quote > p) {
      value.append(p, static_cast<ACE_String_Base<char>::size_type>(quote - p));
    }
    if (quote[1] == '"') {
      value += '"';
      p = quote + 2;
      continue;
    }
    current_ = quote + 1;
    break;
  }
  SkipWhiteSpace();
  if (*current_ == '\0') return 0;
  if (*current_ == ',') {
    ++current_;
    return 0;
  }
  return -1;
}

int CSVParser::ParseAllValues(std::vector<ACE_String_Base<char>>& values) {
  ACE_String_Base<char> value;
  int rc;
  while ((rc = GetNextValue(value)) == 0) values.push_back(value);
  return rc == 1 ? 0 : -1;
}

int CSVParser::Test() {
  {
    CSVParser parser("\"Value1\", \"Quoted\"\"Value\"");
    std::vector<ACE_String_Base<char>> values;
    if (parser.ParseAllValues(values) != 0) return -1;
    if (values.size() != 2) return -2;
    if (values[0] != "Value1") return -3;
    if (values[1] != "Quoted\"Value") return -4;
  }
  {
    CSVParser parser("     ");
    std::vector<ACE_String_Base<char>> values;
    if (parser.ParseAllValues(values) != 0) return -5;
    if (!values.empty()) return -6;
  }
  {
    CSVParser parser("fooo,barr,wee");
    std::vector<ACE_String_Base<char>> values;
    if (parser.ParseAllValues(values) == 0) return -7;
  }
  {
    CSVParser parser("\"foo,bar,wee");
    std::vector<ACE_String_Base<char>> values;
    if (parser.ParseAllValues(values) == 0) return -8;
  }
  return 0;
}
