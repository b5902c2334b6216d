// Range matching from arbitrary bytes: the input is "<range>\n<value>".
// Whatever the texts, a value that matches a range is well formed and
// matches itself, and for DT the open ranges that start or end at it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/base/dicomrange.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string const input(reinterpret_cast<const char*>(data), size);
  size_t const cut = input.find('\n');
  // The matchers read terminated texts: each ends at its first NUL.
  std::string const range = input.substr(0, cut).c_str();
  std::string const value =
      cut == std::string::npos ? std::string() : input.substr(cut + 1).c_str();
  const char* r = range.c_str();
  const char* v = value.c_str();
  bool (*const match[])(const char*, const char*) = {
      Kelvane::MatchDARange, Kelvane::MatchTMRange, Kelvane::MatchDTRange};
  // A blank range is universal matching; a blank value is no value.
  bool const blank_range = range.find_first_not_of(' ') == std::string::npos;
  bool const blank_value = value.find_first_not_of(' ') == std::string::npos;
  for (auto* m : match) {
    Check(m("", v));
    if (m(r, v) && !blank_range) Check(m(v, v));
  }
  if (!blank_value && Kelvane::MatchDTRange(v, v) &&
      value.find('-') == std::string::npos) {
    Check(Kelvane::MatchDTRange((value + "-").c_str(), v));
    Check(Kelvane::MatchDTRange(("-" + value).c_str(), v));
  }
  return 0;
}
