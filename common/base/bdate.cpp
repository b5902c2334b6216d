#include "common/base/bdate.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <istream>
#include <ostream>

#include "common/base/internal/calendar.h"
#include "common/base/internal/dateparse.h"
#include "common/base/internal/localzone.h"
#include "common/base/internal/textscan.h"

namespace {

const unsigned int kDaysInMonth[13] = {0,  31, 28, 31, 30, 31, 30,
                                       31, 31, 30, 31, 30, 31};
const char* const kMonthNames[13] = {"BAD", "Jan", "Feb", "Mar", "Apr",
                                     "May", "Jun", "Jul", "Aug", "Sep",
                                     "Oct", "Nov", "Dec"};

inline bool ValidYmd(unsigned int y, unsigned int m, unsigned int d) {
  if (y < 1000 || y > 9999 || m < 1 || m > 12 || d < 1) return false;
  unsigned int dim = kDaysInMonth[m];
  if (m == 2 && Kelvane::calendar::IsLeap(y)) ++dim;
  return d <= dim;
}

// The day number of a valid y/m/d, else 0: ValidYmd() and YmdToScalar()
// in one pass, in 32-bit arithmetic (valid years stay far from overflow).
inline ACE_UINT32 ScalarIfValid(unsigned int y, unsigned int m,
                                unsigned int d) {
  if (y - 1000u > 8999u || m - 1u > 11u || d == 0) return 0;
  bool const leap = (y & 3u) == 0 && (y % 100u != 0 || y % 400u == 0);
  if (d > kDaysInMonth[m] + ((m == 2 && leap) ? 1u : 0u)) return 0;
  ACE_UINT32 s = Kelvane::calendar::MonthsToDays(m) + d;
  if (m > 2) s -= leap ? 1u : 2u;
  ACE_UINT32 const p = y - 1u;
  return p * 365u + p / 4u - p / 100u + p / 400u + s;
}

inline unsigned Digit(char c) { return static_cast<unsigned char>(c - '0'); }

// Exactly "YYYYMMDD" (when `dashes` is false) or "YYYY?MM?DD" with '-' or
// '.' for each '?': the common forms, read without the general machinery.
// Gives the same result as the general parser for these texts.
inline bool QuickFields(const char* p, bool dashes, unsigned& y, unsigned& m,
                        unsigned& d) {
  unsigned const step = dashes ? 1 : 0;
  const char* mm = p + 4 + step;
  const char* dd = mm + 2 + step;
  unsigned const y0 = Digit(p[0]), y1 = Digit(p[1]), y2 = Digit(p[2]),
                 y3 = Digit(p[3]), m0 = Digit(mm[0]), m1 = Digit(mm[1]),
                 d0 = Digit(dd[0]), d1 = Digit(dd[1]);
  if ((y0 | y1 | y2 | y3 | m0 | m1 | d0 | d1) > 9) return false;
  if (dashes &&
      !((p[4] == '-' || p[4] == '.') && (p[7] == '-' || p[7] == '.'))) {
    return false;
  }
  y = y0 * 1000 + y1 * 100 + y2 * 10 + y3;
  m = m0 * 10 + m1;
  d = d0 * 10 + d1;
  return true;
}

const char* FindSeparator(const char* p, const char* end) {
  for (; p < end; ++p) {
    if (*p == '.' || *p == '-') return p;
  }
  return nullptr;
}

}  // namespace

namespace Kelvane {
namespace dateparse {

ACE_UINT32 ParseDate(const char* begin, const char* end) {
  using textscan::AtoI;
  unsigned y, m, d;
  if ((end - begin == 8 && QuickFields(begin, false, y, m, d)) ||
      (end - begin == 10 && QuickFields(begin, true, y, m, d))) {
    return ScalarIfValid(y, m, d);
  }
  if (begin == end) return 0;
  const char* p = begin;
  while (p < end - 1 && *p == ' ') ++p;
  const char* last = end;
  while (last > p && last[-1] == ' ') --last;
  ptrdiff_t len = last - p;
  if (len != 0 && *p == '\'' && last[-1] == '\'') {
    ++p;
    len -= 2;
  }
  if (len < 8) return 0;

  int32_t year = 0, month = 0, day = 0;
  const char* slash = static_cast<const char*>(
      std::memchr(p, '/', static_cast<size_t>(end - p)));
  if (slash != nullptr) {
    const char* slash2 = static_cast<const char*>(
        std::memchr(slash + 1, '/', static_cast<size_t>(end - slash - 1)));
    if (slash2 == nullptr) return 0;
    month = AtoI(p, end);
    day = AtoI(slash + 1, end);
    year = AtoI(slash2 + 1, end);
  } else {
    const char* sep = FindSeparator(p, end);
    if (sep == nullptr) {
      if (len == 8) {
        year = AtoI(p, p + 4);
        month = AtoI(p + 4, p + 6);
        day = AtoI(p + 6, p + 8);
      }
    } else if (sep - p == 4 && len > 9) {
      const char* sep2 = FindSeparator(sep + 1, end);
      if (sep2 != nullptr && sep2 - p == 7) {
        year = AtoI(p, p + 4);
        month = AtoI(p + 5, p + 7);
        day = AtoI(p + 8, p + 10);
      }
    }
  }
  if (year == 0) return 0;
  return ScalarIfValid(static_cast<unsigned int>(year),
                       static_cast<unsigned int>(month),
                       static_cast<unsigned int>(day));
}

}  // namespace dateparse
}  // namespace Kelvane

BDate::BDate() : day_(0) {}

BDate::BDate(const BDate& other) : day_(other.day_) {}

BDate::BDate(unsigned int scalar) : day_(scalar) {
  if (!IsValid()) day_ = 0;
}

BDate::BDate(unsigned int year, unsigned int month, unsigned int day)
    : day_(0) {
  SetYMD(year, month, day);
}

BDate::BDate(const char* text) : day_(0) {
  if (text == nullptr) return;
  // Eight digits and the end: DA, without measuring the text first. Each
  // byte is looked at only after the one before it proved not to be the end.
  int n = 0;
  while (n < 8 && Kelvane::textscan::IsDigit(text[n])) ++n;
  unsigned y, m, d;
  if (n == 8 && text[8] == 0 && QuickFields(text, false, y, m, d)) {
    day_ = ScalarIfValid(y, m, d);
    return;
  }
  day_ = Kelvane::dateparse::ParseDate(text, text + std::strlen(text));
}

BDate::BDate(ACE_INT64 seconds) : day_(0) {
  Kelvane::localzone::Record r;
  if (Kelvane::localzone::SecondsToLocal(seconds, 0, r)) {
    SetYMD(static_cast<unsigned int>(r.year),
           static_cast<unsigned int>(r.month),
           static_cast<unsigned int>(r.day));
  }
}

BDate& BDate::operator=(const BDate& other) {
  day_ = other.day_;
  return *this;
}

BDate BDate::Today() { return BDate(static_cast<ACE_INT64>(time(nullptr))); }

unsigned int BDate::GetYear() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  return y;
}

unsigned int BDate::GetMonth() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  return m;
}

unsigned int BDate::GetDay() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  return d;
}

void BDate::GetYMD(unsigned int& year, unsigned int& month,
                   unsigned int& day) const {
  uint32_t y, m, d;
  Kelvane::calendar::ScalarToYmd(day_, y, m, d);
  year = y;
  month = m;
  day = d;
}

unsigned int BDate::GetDayofWeek() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  unsigned int k = m + 1;
  if (m < 3) {
    y -= 1;
    k = m + 13;
  }
  return (d + 5 + y + y / 4 - y / 100 + y / 400 + 26 * k / 10) % 7;
}

const char* BDate::GetMonthString() const {
  unsigned int m = GetMonth();
  return kMonthNames[(m >= 1 && m <= 12) ? m : 0];
}

bool BDate::IsValid() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  return ValidYmd(y, m, d);
}

bool BDate::IsValid(unsigned int year, unsigned int month, unsigned int day) {
  return ValidYmd(year, month, day);
}

void BDate::SetYMD(unsigned int year, unsigned int month, unsigned int day) {
  day_ = ScalarIfValid(year, month, day);
}

void BDate::FromString(const char* text) {
  int32_t year = 0, month = 0, day = 0;
  if (text != nullptr) {
    using Kelvane::textscan::ScanInt;
    const char* p = text;
    const char* end = text + std::strlen(text);
    if (ScanInt(p, end, 4, year) && ScanInt(p, end, 2, month)) {
      ScanInt(p, end, 2, day);
    }
  }
  SetYMD(static_cast<unsigned int>(year), static_cast<unsigned int>(month),
         static_cast<unsigned int>(day));
}

void BDate::ToString(char* out) const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  std::snprintf(out, 9, "%04d%02d%02d", static_cast<int>(y),
                static_cast<int>(m), static_cast<int>(d));
}

ACE_CString BDate::ToString() const {
  unsigned int y, m, d;
  GetYMD(y, m, d);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d%02d%02d", static_cast<int>(y),
                static_cast<int>(m), static_cast<int>(d));
  return ACE_CString(buf);
}

int BDate::operator==(const BDate& other) const {
  return day_ == other.day_ ? 1 : 0;
}
bool BDate::operator<(const BDate& other) const { return day_ < other.day_; }
bool BDate::operator<=(const BDate& other) const { return day_ <= other.day_; }
bool BDate::operator>(const BDate& other) const { return day_ > other.day_; }
bool BDate::operator>=(const BDate& other) const { return day_ >= other.day_; }

int BDate::operator-(const BDate& other) const {
  return static_cast<int>(day_ - other.day_);
}

BDate& BDate::operator++() {
  ++day_;
  return *this;
}

BDate& BDate::operator++(int) {
  ++day_;
  return *this;
}

BDate& BDate::operator--() {
  --day_;
  return *this;
}

BDate& BDate::operator+=(int days) {
  day_ += static_cast<ACE_UINT32>(days);
  return *this;
}

BDate& BDate::operator-=(int days) {
  day_ -= static_cast<ACE_UINT32>(days);
  return *this;
}

std::istream& operator>>(std::istream& in, BDate& date) {
  char buf[9] = {0};
  in.get(buf, sizeof buf);
  date.FromString(buf);
  return in;
}

std::ostream& operator<<(std::ostream& out, const BDate& date) {
  char buf[9];
  date.ToString(buf);
  return out << buf;
}
