#include "common/base/dateutils.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "common/base/bdate.h"
#include "common/base/btime.h"
#include "common/base/comlog.h"
#include "common/base/internal/calendar.h"
#include "common/base/internal/localzone.h"

namespace {

inline void Append(char* out, char c) {
  size_t const n = std::strlen(out);
  out[n] = c;
  out[n + 1] = 0;
}

inline int IsDigit(char c) {
  return std::isdigit(static_cast<unsigned char>(c));
}

ACE_String_Base<char> FormatMs(int32_t ms) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%d", ms);
  return ACE_String_Base<char>(buf);
}

// UTC - local in milliseconds, truncated to 32 bits.
int32_t DiffInMilliSeconds(const Kelvane::localzone::Record& utc,
                           const Kelvane::localzone::Record& local) {
  if (!Kelvane::localzone::IsValidRecord(utc) ||
      !Kelvane::localzone::IsValidRecord(local)) {
    COM_LOG((LM_ERROR,
             "DiffInMilliSeconds: Error occured while converting system time "
             "to file time.\n"));
    return 0;
  }
  int64_t const a =
      Kelvane::localzone::RecordToSeconds(utc) * 1000 + utc.millisecond;
  int64_t const b =
      Kelvane::localzone::RecordToSeconds(local) * 1000 + local.millisecond;
  return static_cast<int32_t>(a - b);
}

}  // namespace

int utl_isleap(unsigned year) {
  return Kelvane::calendar::IsLeap(year) ? 1 : 0;
}

unsigned utl_months_to_days(unsigned month) {
  return Kelvane::calendar::MonthsToDays(month);
}

long utl_years_to_days(unsigned year) {
  uint32_t const y = year;
  return static_cast<int32_t>(y * 365u + y / 4 - y / 100 + y / 400);
}

long utl_ymd_to_scalar(unsigned year, unsigned month, unsigned day) {
  uint32_t s = utl_months_to_days(month) + day;
  if (month > 2) s -= utl_isleap(year) ? 1 : 2;
  return static_cast<int32_t>(
      static_cast<uint32_t>(utl_years_to_days(year - 1)) + s);
}

void utl_scalar_to_ymd(long scalar, unsigned* year, unsigned* month,
                       unsigned* day) {
  uint32_t y, m, d;
  Kelvane::calendar::ScalarToYmd(static_cast<int32_t>(scalar), y, m, d);
  if (year != nullptr) *year = y;
  if (month != nullptr) *month = m;
  if (day != nullptr) *day = d;
}

void UtlConvertDICOMString2Date(const char* in, char* out) {
  if (in == nullptr || out == nullptr) return;
  if (std::strlen(in) != 8) {
    out[0] = 0;
    return;
  }
  static const int kOrder[10] = {4, 5, -1, 6, 7, -1, 0, 1, 2, 3};
  for (int i : kOrder) Append(out, i < 0 ? '/' : in[i]);
  out[10] = 0;
}

void UtlConvertDICOMString2Time(const char* in, char* out) {
  if (in == nullptr || out == nullptr) return;
  size_t const len = std::strlen(in);
  if (len < 4) {
    out[0] = 0;
    return;
  }
  Append(out, in[0]);
  Append(out, in[1]);
  Append(out, ':');
  Append(out, in[2]);
  Append(out, in[3]);
  Append(out, ':');
  if (len > 4) {
    size_t const n = std::strlen(out);
    std::memcpy(out + n, in + 4, len - 4 + 1);
  }
}

int UtlConvertString2DICOMDate(const char* in, char* out) {
  if (in == nullptr || out == nullptr) return 0;
  if (std::strlen(in) != 10) {
    out[0] = 0;
    return 0;
  }
  for (int i = 6; i <= 9; ++i) {
    if (!IsDigit(in[i])) {
      out[0] = 0;
      return 0;
    }
    Append(out, in[i]);
  }
  if (IsDigit(in[0])) Append(out, in[0]);
  if (IsDigit(in[1])) Append(out, in[1]);
  if (in[2] != '/' || !IsDigit(in[1])) {
    out[0] = 0;
    return 0;
  }
  if (IsDigit(in[3])) Append(out, in[3]);
  if (IsDigit(in[4])) Append(out, in[4]);
  int const ok = IsDigit(in[4]);
  if (!ok) out[0] = 0;
  return ok;
}

ACE_String_Base<char> GetCurrentTimeZoneOffsetFromUTC() {
  int32_t minutes = 0;
  if (!Kelvane::localzone::CurrentBiasMinutes(minutes)) {
    COM_LOG((LM_ERROR,
             "GetCurrentTimeZoneOffsetFromUTC: Error getting the time zone "
             "bias: \n"));
    return ACE_String_Base<char>();
  }
  return FormatMs(minutes * 60000);
}

ACE_String_Base<char> GetCurrentTimeZoneOffsetFromDate(
    ACE_String_Base<char> date, ACE_String_Base<char> time) {
  BDate const d(date.c_str());
  BTime const t(time.c_str());
  Kelvane::localzone::Record const local = Kelvane::localzone::MakeRecord(d, t);
  Kelvane::localzone::Record utc;
  if (!Kelvane::localzone::LocalToUtc(local, utc)) {
    COM_LOG((LM_ERROR,
             "GetCurrentTimeZoneOffsetFromDate: Error getting the system time "
             "from local time. Using current time zone...\n"));
    return GetCurrentTimeZoneOffsetFromUTC();
  }
  return FormatMs(DiffInMilliSeconds(utc, local));
}
