#include "common/base/internal/localzone.h"

#include <cerrno>
#include <ctime>
#include <mutex>

#include "common/base/bdate.h"
#include "common/base/btime.h"
#include "common/base/internal/calendar.h"

namespace Kelvane {
namespace localzone {

namespace {

const int32_t kDaysInMonth[13] = {0,  31, 28, 31, 30, 31, 30,
                                  31, 31, 30, 31, 30, 31};

bool ToLocalTm(int64_t seconds, struct tm& out) {
  if (seconds < INT64_MIN / 2 || seconds > INT64_MAX / 2) {
    errno = EOVERFLOW;
    return false;
  }
  time_t t = static_cast<time_t>(seconds);
  // The C library guards its zone state with a lock of its own that thread
  // checkers cannot see; one lock here makes concurrent conversions visibly
  // ordered, at no cost beside the conversion itself.
  static std::mutex lock;
  std::lock_guard<std::mutex> hold(lock);
  tzset();
  return localtime_r(&t, &out) != nullptr;
}

Record FromSeconds(int64_t seconds, int32_t millisecond, bool& ok) {
  Record r = {};
  struct tm tm;
  ok = ToLocalTm(seconds, tm);
  if (ok) {
    r.year = tm.tm_year + 1900;
    r.month = tm.tm_mon + 1;
    r.day = tm.tm_mday;
    r.hour = tm.tm_hour;
    r.minute = tm.tm_min;
    r.second = tm.tm_sec;
    r.millisecond = millisecond;
  }
  return r;
}

Record UtcFromSeconds(int64_t seconds, int32_t millisecond) {
  int64_t days = seconds / 86400;
  int64_t rem = seconds % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  uint32_t y = 0, m = 0, d = 0;
  calendar::ScalarToYmd(days + calendar::kUnixEpochDay, y, m, d);
  Record r;
  r.year = static_cast<int32_t>(y);
  r.month = static_cast<int32_t>(m);
  r.day = static_cast<int32_t>(d);
  r.hour = static_cast<int32_t>(rem / 3600);
  r.minute = static_cast<int32_t>(rem / 60 % 60);
  r.second = static_cast<int32_t>(rem % 60);
  r.millisecond = millisecond;
  return r;
}

}  // namespace

Record MakeRecord(const BDate& date, const BTime& time) {
  unsigned int y = 0, m = 0, d = 0;
  date.GetYMD(y, m, d);
  Record r;
  r.year = static_cast<int32_t>(y);
  r.month = static_cast<int32_t>(m);
  r.day = static_cast<int32_t>(d);
  r.hour = time.GetHour();
  r.minute = time.GetMinute();
  r.second = time.GetSecond();
  r.millisecond = time.GetMilliSecond();
  return r;
}

bool IsValidRecord(const Record& r) {
  if (r.year < 1601 || r.year > 30827 || r.month < 1 || r.month > 12) {
    return false;
  }
  int32_t dim = kDaysInMonth[r.month];
  if (r.month == 2 && calendar::IsLeap(static_cast<uint32_t>(r.year))) ++dim;
  return r.day >= 1 && r.day <= dim && r.hour >= 0 && r.hour < 24 &&
         r.minute >= 0 && r.minute < 60 && r.second >= 0 && r.second < 60 &&
         r.millisecond >= 0 && r.millisecond < 1000;
}

int64_t RecordToSeconds(const Record& r) {
  int64_t days = calendar::YmdToScalar(static_cast<uint32_t>(r.year),
                                       static_cast<uint32_t>(r.month),
                                       static_cast<uint32_t>(r.day)) -
                 calendar::kUnixEpochDay;
  return days * 86400 + (static_cast<int64_t>(r.hour) * 60 + r.minute) * 60 +
         r.second;
}

bool OffsetAt(int64_t utc, int32_t& offset) {
  struct tm tm;
  if (!ToLocalTm(utc, tm)) return false;
  offset = static_cast<int32_t>(tm.tm_gmtoff);
  return true;
}

bool CurrentBiasMinutes(int32_t& minutes) {
  int32_t offset = 0;
  if (!OffsetAt(static_cast<int64_t>(time(nullptr)), offset)) return false;
  minutes = -offset / 60;
  return true;
}

bool LocalToUtc(const Record& local, Record& utc) {
  if (!IsValidRecord(local)) {
    errno = EINVAL;
    return false;
  }
  int64_t instant = 0;
  if (!ResolveLocal(RecordToSeconds(local), OffsetAt, instant)) return false;
  Record r = UtcFromSeconds(instant, local.millisecond);
  if (!IsValidRecord(r)) {
    errno = EINVAL;
    return false;
  }
  utc = r;
  return true;
}

bool UtcToLocal(const Record& utc, Record& local) {
  if (!IsValidRecord(utc)) {
    errno = EINVAL;
    return false;
  }
  bool ok = false;
  Record r = FromSeconds(RecordToSeconds(utc), utc.millisecond, ok);
  if (!ok) return false;
  if (!IsValidRecord(r)) {
    errno = EINVAL;
    return false;
  }
  local = r;
  return true;
}

bool SecondsToLocal(int64_t seconds, int32_t millisecond, Record& local) {
  bool ok = false;
  Record r = FromSeconds(seconds, millisecond, ok);
  if (ok) local = r;
  return ok;
}

}  // namespace localzone
}  // namespace Kelvane
