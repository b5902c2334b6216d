#include "common/base/bdatetime.h"

#include <cstdio>
#include <cstring>
#include <ostream>

#include "common/base/comlog.h"
#include "common/base/internal/dateparse.h"
#include "common/base/internal/localzone.h"

namespace {

const ACE_UINT32 kMsPerDay = 86400000u;

BDateTime FromRecord(const Kelvane::localzone::Record& r) {
  return BDateTime(
      BDate(static_cast<unsigned int>(r.year),
            static_cast<unsigned int>(r.month),
            static_cast<unsigned int>(r.day)),
      BTime(static_cast<unsigned int>(
          ((r.hour * 60 + r.minute) * 60 + r.second) * 1000 + r.millisecond)));
}

}  // namespace

BDateTime::BDateTime() {}

BDateTime::BDateTime(const BDateTime& other)
    : date_(other.date_), time_(other.time_) {}

BDateTime::BDateTime(BDate date, BTime time) : date_(date), time_(time) {}

BDateTime::BDateTime(ACE_INT64 seconds) : date_(seconds), time_(seconds) {}

BDateTime::BDateTime(const char* text) {
  if (text == nullptr) return;
  const char* p = text;
  const char* end = text + std::strlen(text);
  if (p == end) return;
  while (p < end - 1 && *p == ' ') ++p;
  while (end > p && end[-1] == ' ') --end;
  if (end > p && *p == '\'' && end[-1] == '\'') ++p;

  size_t const len = static_cast<size_t>(end - p);
  const char* sep = static_cast<const char*>(std::memchr(p, ' ', len));
  if (sep == nullptr) sep = static_cast<const char*>(std::memchr(p, 'T', len));
  const char* date_end = sep != nullptr ? sep : end;

  date_.day_ = Kelvane::dateparse::ParseDate(p, date_end);
  if (date_.day_ == 0) return;
  if (sep == nullptr) return;
  int precision = BTime::Millisecond;
  Kelvane::dateparse::ParseTime(sep + 1, end, time_.ms_, precision);
  time_.precision_ = static_cast<BTime::Precision>(precision);
}

BDateTime& BDateTime::operator=(const BDateTime& other) {
  date_ = other.date_;
  time_ = other.time_;
  return *this;
}

BDateTime BDateTime::Now() {
  BTime const time = BTime::Now();
  BDate const date = BDate::Today();
  return BDateTime(date, time);
}

const BDate& BDateTime::GetDate() const { return date_; }

const BTime& BDateTime::GetTime() const { return time_; }

bool BDateTime::IsValid() const { return date_.IsValid() && time_.IsValid(); }

bool BDateTime::operator==(const BDateTime& other) const {
  return date_.day_ == other.date_.day_ && time_.ms_ == other.time_.ms_;
}

bool BDateTime::operator<(const BDateTime& other) const {
  if (date_.day_ != other.date_.day_) return date_.day_ < other.date_.day_;
  return time_.ms_ < other.time_.ms_;
}

bool BDateTime::operator>(const BDateTime& other) const {
  if (date_.day_ != other.date_.day_) return date_.day_ > other.date_.day_;
  return time_.ms_ > other.time_.ms_;
}

bool BDateTime::operator<=(const BDateTime& other) const {
  return *this < other || *this == other;
}

bool BDateTime::operator>=(const BDateTime& other) const {
  return *this > other || *this == other;
}

BTimeSpan BDateTime::operator-(const BDateTime& other) const {
  return BTimeSpan(date_.day_, time_.ms_) -
         BTimeSpan(other.date_.day_, other.time_.ms_);
}

BTimeSpan BDateTime::operator+(const BDateTime& other) const {
  return BTimeSpan(date_.day_, time_.ms_) +
         BTimeSpan(other.date_.day_, other.time_.ms_);
}

BDateTime& BDateTime::operator+=(const BTime& t) {
  ACE_UINT32 const total = time_.ms_ + t.ms_;
  time_ = BTime(static_cast<unsigned int>(total % kMsPerDay));
  date_ += static_cast<int>(total / kMsPerDay);
  return *this;
}

BDateTime& BDateTime::operator-=(const BTime& t) {
  int32_t const d = static_cast<int32_t>(t.ms_ - time_.ms_);
  if (d > 0) {
    ACE_UINT32 const back = static_cast<ACE_UINT32>(d) / kMsPerDay + 1;
    date_ = BDate(static_cast<unsigned int>(date_.day_ - back));
    time_.ms_ = kMsPerDay - static_cast<ACE_UINT32>(d) % kMsPerDay;
  } else {
    time_.ms_ -= t.ms_;
  }
  return *this;
}

bool BDateTime::GetTimeZoneBias(long& minutes) {
  int32_t bias = 0;
  if (!Kelvane::localzone::CurrentBiasMinutes(bias)) {
    COM_LOG((LM_ERROR,
             "BDateTime::TimeZoneBias: Error getting the time zone bias: OS "
             "Error: %m.\nWill not convert BDateTime from Local to UTC\n"));
    return false;
  }
  minutes = bias;
  return true;
}

BDateTime BDateTime::LocalTimeToGMT() const {
  if (!IsValid()) return *this;
  Kelvane::localzone::Record utc;
  if (!Kelvane::localzone::LocalToUtc(
          Kelvane::localzone::MakeRecord(date_, time_), utc)) {
    return *this;
  }
  return FromRecord(utc);
}

BDateTime BDateTime::ToLocal() const {
  if (!IsValid()) return *this;
  Kelvane::localzone::Record local;
  if (!Kelvane::localzone::UtcToLocal(
          Kelvane::localzone::MakeRecord(date_, time_), local)) {
    return BDateTime();
  }
  return FromRecord(local);
}

BDateTime BDateTime::ToUTC() const {
  long bias = 0;
  if (!GetTimeZoneBias(bias)) return BDateTime();
  int32_t const shift = static_cast<int32_t>(bias * 60000);
  BDateTime r(*this);
  if (shift >= 1) {
    r += BTime(static_cast<unsigned int>(shift));
  } else if (shift < 0) {
    r -= BTime(static_cast<unsigned int>(-static_cast<int64_t>(shift)));
  }
  return r;
}

ACE_CString BDateTime::ToString() const {
  unsigned int y, m, d;
  date_.GetYMD(y, m, d);
  char buf[80] = {0};
  std::snprintf(buf, sizeof buf, "%02d/%02d/%02d %02d:%02d:%02d.%04d",
                static_cast<int>(m), static_cast<int>(d), static_cast<int>(y),
                time_.GetHour(), time_.GetMinute(), time_.GetSecond(),
                time_.GetMilliSecond());
  return ACE_CString(buf);
}

void BDateTime::ToString(char* out) const {
  unsigned int y, m, d;
  date_.GetYMD(y, m, d);
  std::snprintf(out, 20, "%02d/%02d/%02d %02d:%02d:%02d", static_cast<int>(m),
                static_cast<int>(d), static_cast<int>(y), time_.GetHour(),
                time_.GetMinute(), time_.GetSecond());
}

std::ostream& operator<<(std::ostream& out, const BDateTime& dt) {
  char buf[20];
  dt.ToString(buf);
  return out << buf;
}
