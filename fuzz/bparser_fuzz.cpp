// Splitting, joining and comment stripping from arbitrary bytes. The first
// byte picks the delimiter, the rest is the text (cut at its first NUL for
// the C-string operations).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/base/bparser.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char delimiter = static_cast<char>(data[0]);
  const std::string raw(reinterpret_cast<const char*>(data) + 1, size - 1);
  char* exact = static_cast<char*>(std::malloc(raw.size() + 1));
  std::copy(raw.c_str(), raw.c_str() + raw.size() + 1, exact);
  const size_t text_len = std::strlen(exact);

  std::vector<ACE_CString> tokens;
  const int rc = BParser::DeTokenize(tokens, exact, delimiter);
  std::vector<ACE_CString> tokens_ex;
  const int rc_ex = BParser::DeTokenizeEx(tokens_ex, exact, delimiter);
  Check(rc == rc_ex);
  if (rc == 1) {
    Check(tokens == tokens_ex);
    // Joining the tokens with the delimiter gives the text back.
    ACE_CString joined;
    for (size_t i = 0; i < tokens.size(); ++i) {
      if (i > 0) joined += delimiter;
      joined += tokens[i];
    }
    Check(joined.length() == text_len &&
          std::memcmp(joined.c_str(), exact, text_len) == 0);
  } else {
    Check(tokens.empty() && tokens_ex.size() == 1 &&
          tokens_ex[0].length() == text_len);
  }

  ACE_CString trimmed;
  Check(BParser::TrimTokens(trimmed, exact, delimiter) == 1);
  Check(trimmed.length() <= text_len);

  std::vector<ACE_CString> lines;
  Check(BParser::StripOpaqueComments(ACE_CString(raw.data(), raw.size()),
                                     lines) == 1);
  for (const ACE_CString& line : lines) {
    Check(line.length() <= text_len);
    Check(std::memchr(line.c_str(), '\n', line.length()) == nullptr);
  }

  ACE_CString s(raw.data(), raw.size());
  BParser::EatWhitespaceLR(s);
  Check(s.length() <= raw.size());
  std::free(exact);
  return 0;
}
