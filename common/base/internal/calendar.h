// Proleptic Gregorian day arithmetic shared by the date units.
//
// Day 1 is 1 January of year 1, so 1 January 1970 is 719163. Months are
// counted in a model where February has 30 days (the "months to days"
// table below); the leap correction is applied on top. The functions work
// in 64-bit arithmetic, so they never overflow for any 32-bit year or day
// count; the exported 32-bit wrappers live in common/base/dateutils.
//
// Thread safety: pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_CALENDAR_H_
#define COM_COMMON_BASE_INTERNAL_CALENDAR_H_

#include <cstdint>

namespace Kelvane {
namespace calendar {

// Day number of 1 January 1970.
constexpr int64_t kUnixEpochDay = 719163;

constexpr bool IsLeap(uint32_t y) {
  return y % 400 == 0 || (y % 4 == 0 && y % 100 != 0);
}

// Days in month m (1..12) of year y.
constexpr uint32_t DaysInMonth(uint32_t y, uint32_t m) {
  constexpr uint8_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kDays[m - 1] + (m == 2 && IsLeap(y) ? 1 : 0);
}

// Days before month m with a 30-day February: Jan 0, Feb 31, Mar 61, ...
// Unsigned 32-bit on purpose: month 0 wraps to a large value, as callers
// that pass unchecked months expect.
constexpr uint32_t MonthsToDays(uint32_t m) {
  return (m * 3057u - 3007u) / 100u;
}

// Days in the years 1..y.
constexpr int64_t YearsToDays(int64_t y) {
  return y * 365 + y / 4 - y / 100 + y / 400;
}

// Day number of y/m/d without any validation.
constexpr int64_t YmdToScalar(uint32_t y, uint32_t m, uint32_t d) {
  int64_t s = static_cast<int64_t>(MonthsToDays(m)) + d;
  if (m > 2) s -= IsLeap(y) ? 1 : 2;
  // y - 1 wraps for year 0 exactly as the unsigned year argument does.
  return YearsToDays(static_cast<uint32_t>(y - 1u)) + s;
}

// Inverse of YmdToScalar for s >= 1; s <= 0 gives 0/0/0.
inline void ScalarToYmd(int64_t s, uint32_t& y, uint32_t& m, uint32_t& d) {
  if (s <= 0) {
    y = m = d = 0;
    return;
  }
  int64_t n = (s * 400) / 146097;
  while (YearsToDays(n) < s) ++n;
  int64_t r = s - YearsToDays(n - 1);
  if (r > 59) {
    r += 2;
    if (IsLeap(static_cast<uint32_t>(n))) r -= (r > 62) ? 1 : 2;
  }
  uint32_t month = static_cast<uint32_t>((r * 100 + 3007) / 3057);
  y = static_cast<uint32_t>(n);
  m = month;
  d = static_cast<uint32_t>(r - MonthsToDays(month));
}

}  // namespace calendar
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_CALENDAR_H_
