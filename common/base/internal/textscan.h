// Bounded replicas of the C runtime's number readers used by the date and
// time parsers: atoi() and one scanf "%<width>d" conversion, working on a
// [begin, end) range instead of a terminated string, in the classic locale.
// The parsers behave as if the range were a terminated copy of the text,
// and never read outside it.
//
// Thread safety: pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_TEXTSCAN_H_
#define COM_COMMON_BASE_INTERNAL_TEXTSCAN_H_

#include <cstdint>

namespace Kelvane {
namespace textscan {

inline bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline bool IsDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

// atoi(): leading white space, an optional sign, then digits. The value
// saturates at the 32-bit limits instead of being undefined.
inline int32_t AtoI(const char* p, const char* end) {
  while (p < end && IsSpace(*p)) ++p;
  bool negative = false;
  if (p < end && (*p == '+' || *p == '-')) negative = (*p++ == '-');
  int64_t v = 0;
  for (; p < end && IsDigit(*p); ++p) {
    if (v <= INT32_MAX) v = v * 10 + (*p - '0');
  }
  if (negative) v = -v;
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// One "%<width>d" conversion at p: skips white space (not counted in the
// width), then reads at most `width` characters of an optional sign and
// digits. On success stores the value, advances p past what was read and
// returns true; returns false when no digit was read (p is then left where
// the conversion stopped, which ends the scan anyway).
inline bool ScanInt(const char*& p, const char* end, int width, int32_t& out) {
  while (p < end && IsSpace(*p)) ++p;
  const char* limit = (end - p > width) ? p + width : end;
  bool negative = false;
  if (p < limit && (*p == '+' || *p == '-')) negative = (*p++ == '-');
  int32_t v = 0;
  const char* digits = p;
  while (p < limit && IsDigit(*p)) v = v * 10 + (*p++ - '0');
  if (p == digits) return false;
  out = negative ? -v : v;
  return true;
}

}  // namespace textscan
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_TEXTSCAN_H_
