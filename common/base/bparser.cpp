#include "common/base/bparser.h"

#include <cstring>
#include <string>

#include <ace/Tokenizer_T.h>

#include "common/base/stringutils.h"

namespace {

// Splits `text` into `tokens` (emptied first). `whole_if_none` decides
// whether a text without a delimiter gives one token or none.
int Split(std::vector<ACE_String_Base<char>>& tokens, const char* text,
          char delimiter, bool whole_if_none) {
  tokens.clear();
  tokens.reserve(200);
  if (text == nullptr) text = "";
  // A '\0' delimiter would match the terminator and run past the text.
  const char* hit = delimiter == '\0' ? nullptr : std::strchr(text, delimiter);
  if (hit == nullptr) {
    if (whole_if_none) tokens.emplace_back(text);
    return 0;
  }
  const char* start = text;
  while (hit != nullptr) {
    tokens.emplace_back(
        start, static_cast<ACE_String_Base<char>::size_type>(hit - start));
    start = hit + 1;
    hit = std::strchr(start, delimiter);
  }
  tokens.emplace_back(start);
  return 1;
}

}  // namespace

int BParser::DeTokenize(std::vector<ACE_String_Base<char>>& tokens,
                        const char* text, char delimiter) {
  return Split(tokens, text, delimiter, false);
}

int BParser::DeTokenizeEx(std::vector<ACE_String_Base<char>>& tokens,
                          const char* text, char delimiter) {
  return Split(tokens, text, delimiter, true);
}

int BParser::TrimTokens(ACE_String_Base<char>& out, const char* text,
                        char delimiter) {
  std::vector<ACE_String_Base<char>> tokens;
  DeTokenizeEx(tokens, text, delimiter);
  out.clear();
  for (ACE_String_Base<char>& token : tokens) {
    EatWhitespaceLR(token);
    if (token.length() == 0) continue;
    if (out.length() != 0) out += delimiter;
    out += token;
  }
  return 1;
}

int BParser::StripOpaqueComments(const ACE_String_Base<char>& text,
                                 std::vector<ACE_String_Base<char>>& lines) {
  lines.clear();
  // The tokenizer writes NULs into what it cuts, hence the private copy.
  std::string buffer(text.c_str(), text.length());
  ACE_Tokenizer_T<char> tokenizer(&buffer[0]);
  tokenizer.delimiter_replace('\n', '\0');
  for (char* line = tokenizer.next(); line != nullptr;
       line = tokenizer.next()) {
    if (line[0] == '#') continue;
    ACE_String_Base<char> kept(line);
    EatWhitespaceLR(kept);
    lines.push_back(kept);
  }
  return 1;
}

void BParser::EatWhitespaceL(ACE_String_Base<char>& s) {
  Kelvane::EatWhitespaceL(s);
}

void BParser::EatWhitespaceR(ACE_String_Base<char>& s) {
  Kelvane::EatWhitespaceR(s);
}

void BParser::EatWhitespaceLR(ACE_String_Base<char>& s) {
  EatWhitespaceR(s);
  EatWhitespaceL(s);
}
