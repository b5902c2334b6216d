// BTime's text parser on arbitrary bytes. A valid time prints back, at its
// own precision, to a text that parses to the same value and precision.
// Parsing the text with a blank in front gives the same result.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/base/btime.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> text(size + 1);
  if (size != 0) std::memcpy(text.data(), data, size);
  text[size] = 0;

  BTime time(text.data());
  // A leading blank is skipped, so it must not change the result; it also
  // steers the text past the direct reading of the plain forms, so the two
  // readings are compared.
  std::vector<char> blank(size + 2);
  blank[0] = ' ';
  std::memcpy(blank.data() + 1, text.data(), size + 1);
  BTime general(blank.data());
  if (!(general == time) || general.GetPrecision() != time.GetPrecision()) {
    std::abort();
  }
  if (time.IsValid()) {
    BTime again(time.AsDICOMString().c_str());
    if (!(again == time) || again.GetPrecision() != time.GetPrecision()) {
      std::abort();
    }
    if (time.GetHour() > 23 || time.GetMinute() > 59 || time.GetSecond() > 59) {
      std::abort();
    }
  }
  for (int p = BTime::Hour; p <= BTime::Millisecond; ++p) {
    (void)time.AsString(static_cast<BTime::Precision>(p), true);
  }
  char out[9];
  time.ToString(out);
  return 0;
}
