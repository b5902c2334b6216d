#include "common/base/btime.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <locale.h>
#include <string>

#include "common/base/internal/dateparse.h"
#include "common/base/internal/localzone.h"
#include "common/base/internal/textscan.h"

namespace {

const ACE_UINT32 kInvalid = 0xFFFFFFFFu;
const ACE_UINT32 kMsPerDay = 86400000u;

inline ACE_UINT32 ValidOrInvalid(ACE_UINT32 ms) {
  return ms < kMsPerDay ? ms : kInvalid;
}

// strtod() in the classic locale, whatever locale the process has set.
double ClassicStrtod(const char* text) {
  static locale_t const c_locale = newlocale(LC_ALL_MASK, "C", locale_t());
  if (c_locale == locale_t()) return std::strtod(text, nullptr);
  return strtod_l(text, nullptr, c_locale);
}

// The value of the decimal text [dot, end), which starts with '.', as
// strtod() reads it. Up to 15 digits without an exponent are exact in a
// double and so is 10^n, and IEEE division rounds correctly, so the quick
// path gives strtod()'s correctly rounded result; anything else goes
// through strtod() itself.
double ReadFraction(const char* dot, const char* end) {
  static const double kPow10[16] = {1e0,  1e1,  1e2,  1e3, 1e4,  1e5,
                                    1e6,  1e7,  1e8,  1e9, 1e10, 1e11,
                                    1e12, 1e13, 1e14, 1e15};
  const char* p = dot + 1;
  const char* limit = (end - p > 15) ? p + 15 : end;
  uint64_t digits = 0;
  while (p < limit && Kelvane::textscan::IsDigit(*p)) {
    digits = digits * 10 + static_cast<uint64_t>(*p - '0');
    ++p;
  }
  if (p == end || !(Kelvane::textscan::IsDigit(*p) || *p == 'e' || *p == 'E')) {
    return static_cast<double>(digits) / kPow10[p - dot - 1];
  }
  std::string copy(dot, end);
  return ClassicStrtod(copy.c_str());
}

ACE_CString Format(const char* format, int a, int b = 0, int c = 0, int d = 0) {
  char buf[64] = {0};
  std::snprintf(buf, sizeof buf, format, a, b, c, d);
  return ACE_CString(buf);
}

}  // namespace

namespace Kelvane {
namespace dateparse {

void ParseTime(const char* begin, const char* end, ACE_UINT32& ms,
               int& precision) {
  using textscan::IsDigit;
  using textscan::ScanInt;
  ms = kInvalid;
  precision = BTime::Millisecond;
  if (begin == end) return;

  // The plain forms "HH", "HHMM", "HHMMSS", "HH:MM" and "HH:MM:SS", each
  // optionally followed by "." and digits up to the end, read directly;
  // they give what the general reading below gives.
  int32_t field[3] = {0, 0, 0};
  int quick = 0;
  const char* q = begin;
  bool const quick_colons = end - begin >= 5 && begin[2] == ':';
  while (quick < 3 && end - q >= 2 && IsDigit(q[0]) && IsDigit(q[1])) {
    field[quick++] = (q[0] - '0') * 10 + (q[1] - '0');
    q += 2;
    if (quick_colons) {
      if (quick == 3 || end - q < 3 || *q != ':') break;
      ++q;
    }
  }
  const char* f = q;
  if (f < end && *f == '.') {
    ++f;
    while (f < end && IsDigit(*f)) ++f;
  }
  if (quick != 0 && f == end && (q == end || *q == '.')) {
    precision = quick - 1;
    if (field[0] > 23 || field[1] > 59 || field[2] > 59) return;
    ACE_UINT32 value = static_cast<ACE_UINT32>(
        ((field[0] * 60 + field[1]) * 60 + field[2]) * 1000);
    if (q < end) {
      double const extra = ReadFraction(q, end) * 1000.0;
      precision = BTime::Millisecond;
      if (!(extra < static_cast<double>(kMsPerDay))) return;
      value += static_cast<ACE_UINT32>(extra);
    }
    ms = ValidOrInvalid(value);
    return;
  }

  const char* p = begin;
  while (p < end - 1 && *p == ' ') ++p;
  if (end - p < 2) return;

  bool const colons =
      std::memchr(p, ':', static_cast<size_t>(end - p)) != nullptr;
  int32_t hour = -1, minute = -1, second = -1;
  int fields = 0;
  const char* s = p;
  if (ScanInt(s, end, 2, hour)) {
    fields = 1;
    if (!colons || (s < end && *s++ == ':')) {
      if (ScanInt(s, end, 2, minute)) {
        fields = 2;
        if (!colons || (s < end && *s++ == ':')) {
          if (ScanInt(s, end, 2, second)) fields = 3;
        }
      }
    }
  }
  switch (fields) {
    case 1:
      precision = BTime::Hour;
      minute = second = 0;
      break;
    case 2:
      precision = BTime::Minute;
      second = 0;
      break;
    case 3:
      precision = BTime::Second;
      break;
    default:
      return;
  }
  if (static_cast<ACE_UINT32>(hour) > 23 ||
      static_cast<ACE_UINT32>(minute) > 59 ||
      static_cast<ACE_UINT32>(second) > 59) {
    return;
  }
  ACE_UINT32 value =
      static_cast<ACE_UINT32>(((hour * 60 + minute) * 60 + second) * 1000);
  const char* dot = static_cast<const char*>(
      std::memchr(p, '.', static_cast<size_t>(end - p)));
  if (dot != nullptr) {
    double const extra = ReadFraction(dot, end) * 1000.0;
    precision = BTime::Millisecond;
    // Also false for NaN; an infinite or huge fraction cannot be converted.
    if (!(extra < static_cast<double>(kMsPerDay))) return;
    value += static_cast<ACE_UINT32>(extra);
  }
  ms = ValidOrInvalid(value);
}

}  // namespace dateparse
}  // namespace Kelvane

// ------------------------------------------------------------------ BTime

BTime::BTime() : ms_(kInvalid), precision_(Millisecond) {}

BTime::BTime(const BTime& other)
    : ms_(ValidOrInvalid(other.ms_)), precision_(other.precision_) {}

BTime::BTime(int hour, int minute, int second)
    : ms_(ValidOrInvalid(static_cast<ACE_UINT32>(
          ((static_cast<int64_t>(hour) * 60 + minute) * 60 + second) * 1000))),
      precision_(Second) {}

BTime::BTime(unsigned int ms)
    : ms_(ValidOrInvalid(ms)), precision_(Millisecond) {}

BTime::BTime(ACE_INT64 seconds) : ms_(kInvalid), precision_(Second) {
  Kelvane::localzone::Record r;
  if (Kelvane::localzone::SecondsToLocal(seconds, 0, r)) {
    ms_ = ValidOrInvalid(static_cast<ACE_UINT32>(
        r.hour * 3600000 + r.minute * 60000 + r.second * 1000));
  }
}

BTime::BTime(const char* text) : ms_(kInvalid), precision_(Millisecond) {
  if (text == nullptr) return;
  int precision = Millisecond;
  Kelvane::dateparse::ParseTime(text, text + std::strlen(text), ms_, precision);
  precision_ = static_cast<Precision>(precision);
}

BTime& BTime::operator=(const BTime& other) {
  ms_ = other.ms_;
  precision_ = other.precision_;
  return *this;
}

BTime BTime::Now() { return BTime(static_cast<ACE_INT64>(time(nullptr))); }

int BTime::GetHour() const {
  return ms_ == kInvalid ? 0 : static_cast<int>(ms_ / 3600000);
}

int BTime::GetMinute() const {
  return ms_ == kInvalid ? 0 : static_cast<int>(ms_ / 60000 % 60);
}

int BTime::GetSecond() const {
  return ms_ == kInvalid ? 0 : static_cast<int>(ms_ / 1000 % 60);
}

int BTime::GetMilliSecond() const {
  return ms_ == kInvalid ? 0 : static_cast<int>(ms_ % 1000);
}

BTime::Precision BTime::GetPrecision() const { return precision_; }

bool BTime::IsValid() const { return ms_ < kMsPerDay; }

int BTime::operator==(const BTime& other) const {
  return ms_ == other.ms_ ? 1 : 0;
}

bool BTime::operator<(const BTime& other) const { return ms_ < other.ms_; }

bool BTime::operator>(const BTime& other) const { return ms_ > other.ms_; }

void BTime::ToString(char* out) const {
  std::snprintf(out, 9, "%02d:%02d:%02d", GetHour(), GetMinute(), GetSecond());
}

ACE_CString BTime::ToString() const {
  return Format("%02d:%02d:%02d", GetHour(), GetMinute(), GetSecond());
}

ACE_CString BTime::ToDICOMString(bool withMilliseconds) const {
  if (withMilliseconds) {
    return Format("%02d%02d%02d.%03d", GetHour(), GetMinute(), GetSecond(),
                  GetMilliSecond());
  }
  return Format("%02d%02d%02d", GetHour(), GetMinute(), GetSecond());
}

ACE_CString BTime::AsDICOMString() const {
  switch (precision_) {
    case Hour:
      return Format("%02d", GetHour());
    case Minute:
      return Format("%02d%02d", GetHour(), GetMinute());
    case Second:
      return Format("%02d%02d%02d", GetHour(), GetMinute(), GetSecond());
    case Millisecond:
      return Format("%02d%02d%02d.%03d", GetHour(), GetMinute(), GetSecond(),
                    GetMilliSecond());
  }
  return ACE_CString("");
}

ACE_CString BTime::AsString(Precision p, bool markUnknown) const {
  int const h = GetHour(), m = GetMinute(), s = GetSecond(),
            ms = GetMilliSecond();
  Precision const own = markUnknown ? precision_ : Millisecond;
  switch (p) {
    case Hour:
      return Format("%02d", h);
    case Minute:
      if (own == Hour) return Format("%02d:--", h);
      return Format("%02d:%02d", h, m);
    case Second:
      if (own == Hour) return Format("%02d:--:--", h);
      if (own == Minute) return Format("%02d:%02d:--", h, m);
      return Format("%02d:%02d:%02d", h, m, s);
    case Millisecond:
      if (own == Hour) return Format("%02d:--:--.---", h);
      if (own == Minute) return Format("%02d:%02d:--.---", h, m);
      if (own == Second) return Format("%02d:%02d:%02d.---", h, m, s);
      return Format("%02d:%02d:%02d.%03d", h, m, s, ms);
  }
  return ACE_CString("");
}

// -------------------------------------------------------------- BTimeSpan

BTimeSpan::BTimeSpan() : days_(0), ms_(0) {}

BTimeSpan::BTimeSpan(unsigned int days, unsigned int ms)
    : days_(days), ms_(ms) {}

BTimeSpan::BTimeSpan(const BTimeSpan& other)
    : days_(other.days_), ms_(other.ms_) {}

BTimeSpan& BTimeSpan::operator=(const BTimeSpan& other) {
  days_ = other.days_;
  ms_ = other.ms_;
  return *this;
}

unsigned int BTimeSpan::GetDays() const { return days_; }

unsigned int BTimeSpan::GetMilliSeconds() const { return ms_; }

int BTimeSpan::operator==(const BTimeSpan& other) const {
  return (days_ == other.days_ && ms_ == other.ms_) ? 1 : 0;
}

int BTimeSpan::operator<(const BTimeSpan& other) const {
  return (days_ < other.days_ || (days_ == other.days_ && ms_ < other.ms_)) ? 1
                                                                            : 0;
}

int BTimeSpan::operator<=(const BTimeSpan& other) const {
  return (*this < other || *this == other) ? 1 : 0;
}

int BTimeSpan::operator>(const BTimeSpan& other) const { return other < *this; }

int BTimeSpan::operator>=(const BTimeSpan& other) const {
  return other <= *this;
}

BTimeSpan::operator unsigned long() const {
  return static_cast<ACE_UINT32>(days_ * kMsPerDay + ms_);
}

BTimeSpan& BTimeSpan::operator+=(const BTimeSpan& other) {
  days_ += other.days_;
  ACE_UINT32 const t = ms_ + other.ms_;
  days_ += t / kMsPerDay;
  ms_ = t % kMsPerDay;
  return *this;
}

BTimeSpan& BTimeSpan::operator+=(const BTime& time) {
  return *this += BTimeSpan(0, time.ms_);
}

BTimeSpan& BTimeSpan::operator-=(const BTimeSpan& other) {
  if (*this <= other) {
    days_ = 0;
    ms_ = 0;
    return *this;
  }
  days_ -= other.days_;
  if (ms_ < other.ms_) {
    ms_ += kMsPerDay;
    days_ -= 1;
  }
  ms_ -= other.ms_;
  return *this;
}

BTimeSpan& BTimeSpan::operator-=(const BTime& time) {
  return *this -= BTimeSpan(0, time.ms_);
}

BTimeSpan BTimeSpan::operator+(const BTimeSpan& other) const {
  BTimeSpan r(*this);
  return r += other;
}

BTimeSpan BTimeSpan::operator+(const BTime& time) const {
  BTimeSpan r(*this);
  return r += time;
}

BTimeSpan BTimeSpan::operator-(const BTimeSpan& other) const {
  BTimeSpan r(*this);
  return r -= other;
}

BTimeSpan BTimeSpan::operator-(const BTime& time) const {
  BTimeSpan r(*this);
  return r -= time;
}
