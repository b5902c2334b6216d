#include "common/base/dtvalue.h"

#include <cstring>

#include "common/base/internal/calendar.h"
#include "common/base/internal/dtparse.h"
#include "common/base/internal/localzone.h"

namespace Kelvane {
namespace dtparse {

namespace {

// Reads n digits at p into v; false if any is not a digit.
inline bool Digits(const char* p, int n, unsigned& v) {
  unsigned r = 0;
  for (int i = 0; i < n; ++i) {
    unsigned const d = static_cast<unsigned char>(p[i]) - '0';
    if (d > 9) return false;
    r = r * 10 + d;
  }
  v = r;
  return true;
}

constexpr unsigned kPow10[] = {1, 10, 100, 1000, 10000, 100000, 1000000};

}  // namespace

bool ParseDT(const char* begin, const char* end, DTValue& out) {
  // The body runs to the first '+' or '-'; the offset, if any, is the rest.
  const char* body_end = begin;
  while (body_end != end && *body_end != '+' && *body_end != '-') ++body_end;
  const ptrdiff_t n = body_end - begin;
  DTValue v;
  unsigned f = 0;
  if (n < 4 || !Digits(begin, 4, f) || f == 0) return false;
  v.year = static_cast<unsigned short>(f);
  int fields = 0;  // number of two-digit fields after the year
  ptrdiff_t pos = 4;
  while (pos < n && fields < 5 && begin[pos] != '.') {
    if (n - pos < 2 || !Digits(begin + pos, 2, f)) return false;
    switch (fields) {
      case 0:
        if (f < 1 || f > 12) return false;
        v.month = static_cast<unsigned char>(f);
        break;
      case 1:
        if (f < 1 || f > calendar::DaysInMonth(v.year, v.month)) return false;
        v.day = static_cast<unsigned char>(f);
        break;
      case 2:
        if (f > 23) return false;
        v.hour = static_cast<unsigned char>(f);
        break;
      case 3:
        if (f > 59) return false;
        v.minute = static_cast<unsigned char>(f);
        break;
      default:
        if (f > 60) return false;
        v.second = static_cast<unsigned char>(f);
        break;
    }
    ++fields;
    pos += 2;
  }
  v.precision = static_cast<DTValue::Precision>(fields);
  if (pos < n) {
    // Only a fraction may follow, and only after the seconds.
    if (fields != 5 || begin[pos] != '.') return false;
    ptrdiff_t const digits = n - pos - 1;
    if (digits < 1 || digits > 6 ||
        !Digits(begin + pos + 1, static_cast<int>(digits), f)) {
      return false;
    }
    v.microsecond = f * kPow10[6 - digits];
    v.precision = static_cast<DTValue::Precision>(DTValue::Second + digits);
  }
  if (body_end != end) {
    unsigned hh = 0;
    unsigned mm = 0;
    if (end - body_end != 5 || !Digits(body_end + 1, 2, hh) ||
        !Digits(body_end + 3, 2, mm) || mm > 59) {
      return false;
    }
    int const minutes = static_cast<int>(hh * 60 + mm);
    bool const east = *body_end == '+';
    if (east ? minutes > 14 * 60 : minutes > 12 * 60) return false;
    v.hasOffset = true;
    v.offsetMinutes = static_cast<short>(east ? minutes : -minutes);
    v.offsetSign = *body_end;
  }
  out = v;
  return true;
}

int64_t WallMicros(const DTValue& v) {
  int64_t const day =
      calendar::YmdToScalar(v.year, v.month, v.day) - calendar::kUnixEpochDay;
  int64_t const seconds = day * 86400 + v.hour * 3600 + v.minute * 60 +
                          static_cast<int64_t>(v.second);
  return seconds * kMicrosPerSecond + v.microsecond;
}

int64_t WallMicrosEnd(const DTValue& v) {
  DTValue next = v;
  int64_t step = 0;
  switch (v.precision) {
    case DTValue::Year:
      return WallMicros(next) +
             (calendar::IsLeap(v.year) ? 366 : 365) * kMicrosPerDay - 1;
    case DTValue::Month:
      return WallMicros(next) +
             calendar::DaysInMonth(v.year, v.month) * kMicrosPerDay - 1;
    case DTValue::Day:
      step = kMicrosPerDay;
      break;
    case DTValue::Hour:
      step = 3600 * kMicrosPerSecond;
      break;
    case DTValue::Minute:
      step = 60 * kMicrosPerSecond;
      break;
    default:
      step = kPow10[6 - (v.precision - DTValue::Second)];
      break;
  }
  return WallMicros(next) + step - 1;
}

}  // namespace dtparse

bool DTValue::IsValid() const { return year != 0; }

bool DTValue::operator==(const DTValue& o) const {
  return year == o.year && month == o.month && day == o.day && hour == o.hour &&
         minute == o.minute && second == o.second &&
         microsecond == o.microsecond && precision == o.precision &&
         hasOffset == o.hasOffset && offsetMinutes == o.offsetMinutes &&
         offsetSign == o.offsetSign;
}

bool ParseDT(const char* text, DTValue& out) {
  if (text == nullptr) return false;
  return dtparse::ParseDT(text, text + std::strlen(text), out);
}

namespace {

inline char* Put2(char* p, unsigned v) {
  p[0] = static_cast<char>('0' + v / 10);
  p[1] = static_cast<char>('0' + v % 10);
  return p + 2;
}

}  // namespace

ACE_CString FormatDT(const DTValue& v) {
  if (!v.IsValid()) return ACE_CString();
  char buf[32];
  char* p = Put2(Put2(buf, v.year / 100u), v.year % 100u);
  const unsigned fields[] = {v.month, v.day, v.hour, v.minute, v.second};
  int const shown = v.precision < DTValue::Second ? v.precision : 5;
  for (int i = 0; i < shown; ++i) p = Put2(p, fields[i]);
  if (v.precision > DTValue::Second) {
    *p++ = '.';
    int const digits = v.precision - DTValue::Second;
    unsigned frac = v.microsecond;
    char six[6];
    for (int i = 5; i >= 0; --i) {
      six[i] = static_cast<char>('0' + frac % 10);
      frac /= 10;
    }
    std::memcpy(p, six, static_cast<size_t>(digits));
    p += digits;
  }
  if (v.hasOffset) {
    unsigned const m = static_cast<unsigned>(
        v.offsetMinutes < 0 ? -v.offsetMinutes : v.offsetMinutes);
    *p++ = v.offsetMinutes < 0 || v.offsetSign == '-' ? '-' : '+';
    p = Put2(Put2(p, m / 60), m % 60);
  }
  *p = 0;
  return ACE_CString(buf);
}

BDateTime DTToUTC(const DTValue& value) {
  if (!value.IsValid()) return BDateTime();
  int64_t const wall = dtparse::WallMicros(value);
  int64_t const wall_seconds =
      (wall >= 0 ? wall : wall - (dtparse::kMicrosPerSecond - 1)) /
      dtparse::kMicrosPerSecond;
  int64_t const sub = wall - wall_seconds * dtparse::kMicrosPerSecond;
  int64_t utc_seconds = 0;
  if (value.hasOffset) {
    utc_seconds = wall_seconds - value.offsetMinutes * 60;
  } else if (!localzone::ResolveLocal(wall_seconds, localzone::OffsetAt,
                                      utc_seconds)) {
    return BDateTime();
  }
  int64_t days = utc_seconds / 86400;
  int64_t secs = utc_seconds % 86400;
  if (secs < 0) {
    secs += 86400;
    --days;
  }
  uint32_t y = 0;
  uint32_t m = 0;
  uint32_t d = 0;
  calendar::ScalarToYmd(days + calendar::kUnixEpochDay, y, m, d);
  BDate const date(y, m, d);
  if (!date.IsValid()) return BDateTime();
  return BDateTime(date,
                   BTime(static_cast<unsigned int>(secs * 1000 + sub / 1000)));
}

}  // namespace Kelvane
