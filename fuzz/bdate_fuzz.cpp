// BDate's text parser and FromString() on arbitrary bytes. A parsed date is
// either the invalid value or a valid date whose DA text reads back as the
// same day.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/base/bdate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly the input plus its terminator, so any read past it is caught.
  std::vector<char> text(size + 1);
  if (size != 0) std::memcpy(text.data(), data, size);
  text[size] = 0;

  BDate date(text.data());
  // A leading blank is skipped, so it must not change the result; it also
  // steers the text past the direct reading of the plain forms.
  std::vector<char> blank(size + 2);
  blank[0] = ' ';
  std::memcpy(blank.data() + 1, text.data(), size + 1);
  if (!(BDate(blank.data()) == date)) std::abort();
  if (date.IsValid()) {
    BDate again(date.ToString().c_str());
    if (!(again == date)) std::abort();
    if (date.GetDayofWeek() > 6) std::abort();
  } else if (date.GetYear() != 0 || date.GetMonth() != 0) {
    std::abort();
  }

  BDate scanned;
  scanned.FromString(text.data());
  char out[9];
  scanned.ToString(out);
  if (std::strlen(out) != 8) std::abort();
  (void)scanned.GetMonthString();
  return 0;
}
