// DT texts from arbitrary bytes: whatever ParseDT accepts prints back as
// the same text, parses again to the same value, and converts to UTC.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/base/dtvalue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string const text(reinterpret_cast<const char*>(data), size);
  Kelvane::DTValue v;
  if (!Kelvane::ParseDT(text.c_str(), v)) return 0;
  if (!v.IsValid()) std::abort();
  ACE_CString const back = Kelvane::FormatDT(v);
  if (std::strcmp(back.c_str(), text.c_str()) != 0) std::abort();
  Kelvane::DTValue again;
  if (!Kelvane::ParseDT(back.c_str(), again) || again != v) std::abort();
  BDateTime const utc = Kelvane::DTToUTC(v);
  // Only years outside BDate's range may fail to convert.
  if (!utc.IsValid() && v.year > 1001 && v.year < 9998) std::abort();
  return 0;
}
