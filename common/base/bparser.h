// BParser: static helpers that split a string at a delimiter character,
// join trimmed tokens, trim white space and reduce a multi-line
// configuration text to its meaningful lines.
//
// Texts are NUL-terminated C strings; a null text is taken as the empty
// text. The NUL that ends a text is never a delimiter, so a delimiter of
// '\0' matches nothing. White space is whatever isspace() holds for, each
// byte taken as unsigned. No function keeps state: all are safe to call from
// any thread.
//
//   std::vector<ACE_CString> tokens;
//   BParser::DeTokenize(tokens, "a,b,,c", ',');  // 1: "a" "b" "" "c"
//   BParser::DeTokenize(tokens, "abc", ',');     // 0: no tokens
//   ACE_CString out;
//   BParser::TrimTokens(out, " a , ,b ", ',');   // out = "a,b"
#ifndef COM_COMMON_BASE_BPARSER_H_
#define COM_COMMON_BASE_BPARSER_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT BParser {
 public:
  // Empties `tokens`, then splits `text` at every `delimiter`: the pieces
  // before, between and after the delimiters become tokens, empty ones
  // included ("a," gives "a" and ""); tokens are not trimmed. Returns 1 if
  // the text held a delimiter. A text without one returns 0 and yields no
  // token at all.
  static int DeTokenize(std::vector<ACE_String_Base<char>>& tokens,
                        const char* text, char delimiter);

  // As DeTokenize, except that a text without a delimiter yields one token,
  // the whole text ("" gives one empty token); the result is still 0.
  static int DeTokenizeEx(std::vector<ACE_String_Base<char>>& tokens,
                          const char* text, char delimiter);

  // out = the tokens of DeTokenizeEx, each trimmed on both ends, the empty
  // ones dropped, joined by `delimiter`. Returns 1.
  static int TrimTokens(ACE_String_Base<char>& out, const char* text,
                        char delimiter);

  // Empties `lines`, then cuts `text` at newlines; runs of newlines give no
  // empty lines. A line whose first character is '#' is a comment and is
  // dropped; every other line is appended trimmed on both ends, so "  # x"
  // is kept as "# x" and a line of blanks or a lone "\r" gives an empty
  // entry. The text ends at its first NUL byte. Returns 1.
  static int StripOpaqueComments(const ACE_String_Base<char>& text,
                                 std::vector<ACE_String_Base<char>>& lines);

  // Remove leading, trailing, or trailing then leading white space.
  static void EatWhitespaceL(ACE_String_Base<char>& s);
  static void EatWhitespaceR(ACE_String_Base<char>& s);
  static void EatWhitespaceLR(ACE_String_Base<char>& s);
};

#endif  // COM_COMMON_BASE_BPARSER_H_
