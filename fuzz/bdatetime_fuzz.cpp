// BDateTime's text parser on arbitrary bytes, and the zone conversions of
// what it accepts. A valid value printed back as "<DA> <TM>" parses to the
// same value.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/base/bdatetime.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> text(size + 1);
  if (size != 0) std::memcpy(text.data(), data, size);
  text[size] = 0;

  BDateTime dt(text.data());
  if (dt.IsValid()) {
    std::string again = dt.GetDate().ToString().c_str();
    again += ' ';
    again += dt.GetTime().AsDICOMString().c_str();
    if (!(BDateTime(again.c_str()) == dt)) std::abort();
    BDateTime utc = dt.LocalTimeToGMT();
    (void)utc.ToLocal();
    (void)dt.ToUTC();
  } else if (!dt.GetDate().IsValid() && dt.GetTime().IsValid()) {
    std::abort();  // no time without a date
  }
  char out[20];
  dt.ToString(out);
  (void)dt.ToString();
  return 0;
}
