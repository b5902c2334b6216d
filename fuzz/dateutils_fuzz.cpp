// The DICOM string converters, each with an output buffer of exactly the
// size its contract asks for, and the calendar functions on arbitrary
// numbers.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/base/dateutils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<char> in(size + 1);
  if (size != 0) std::memcpy(in.data(), data, size);
  in[size] = 0;
  size_t const len = std::strlen(in.data());

  std::vector<char> date(11, 0);
  UtlConvertDICOMString2Date(in.data(), date.data());
  if (std::strlen(date.data()) != (len == 8 ? 10u : 0u)) std::abort();

  std::vector<char> time(len + 3, 0);
  UtlConvertDICOMString2Time(in.data(), time.data());
  if (len >= 4 && std::strlen(time.data()) != len + 2) std::abort();

  std::vector<char> dicom(9, 0);
  int ok = UtlConvertString2DICOMDate(in.data(), dicom.data());
  if (ok == 0 && dicom[0] != 0) std::abort();

  if (size >= 4) {
    int32_t scalar;
    std::memcpy(&scalar, data, sizeof scalar);
    unsigned y, m, d;
    utl_scalar_to_ymd(scalar, &y, &m, &d);
    if (scalar >= 1 && utl_ymd_to_scalar(y, m, d) != scalar) std::abort();
    (void)utl_isleap(static_cast<unsigned>(scalar));
    (void)utl_years_to_days(static_cast<unsigned>(scalar));
  }

  // The dated offset with the first half as date and the rest as time.
  std::vector<char> first(in.begin(), in.begin() + len / 2);
  first.push_back(0);
  (void)GetCurrentTimeZoneOffsetFromDate(first.data(), in.data() + len / 2);
  return 0;
}
