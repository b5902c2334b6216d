// An independent civil-calendar computation for checking the date units:
// days since 1970-01-01 of a proleptic Gregorian date and back, after the
// well-known era-based algorithm (400-year eras of 146097 days, years
// starting on 1 March).
#ifndef COM_TESTS_SUPPORT_CIVIL_H_
#define COM_TESTS_SUPPORT_CIVIL_H_

#include <cstdint>

namespace comtest {

constexpr int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

struct Civil {
  int64_t y;
  unsigned m;
  unsigned d;
};

constexpr Civil CivilFromDays(int64_t z) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return Civil{static_cast<int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

// 0 = Monday ... 6 = Sunday; 1970-01-01 was a Thursday.
constexpr unsigned WeekdayFromDays(int64_t z) {
  return static_cast<unsigned>(z >= -3 ? (z + 3) % 7 : (z + 4) % 7 + 6);
}

// Seconds since 1970 of a UTC wall time.
constexpr int64_t UtcSeconds(int64_t y, unsigned mo, unsigned d, int h, int mi,
                             int s) {
  return DaysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
}

}  // namespace comtest

#endif  // COM_TESTS_SUPPORT_CIVIL_H_
