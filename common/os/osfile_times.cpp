#include "common/os/osfile.h"

// File times: conversions between file times and local date-times, the
// FileInfo record, and reading and setting the times of a file.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/base/comlog.h"
#include "common/base/internal/localzone.h"
#include "common/os/internal/osfilerules.h"
#include "common/os/internal/osfileshared.h"

namespace Kelvane {

using internal::CloseKeepingErrno;
using internal::CreationTicks;
using internal::Entry;
using internal::Enumeration;
using internal::ModifiedTicks;
using internal::StatxAt;

// ================================================================ pure rules

namespace internal {

uint64_t FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds) {
  if (seconds < -kFileTimeEpochOffset) return 0;
  return static_cast<uint64_t>(seconds + kFileTimeEpochOffset) * 10000000ULL +
         nanoseconds / 100;
}

std::pair<int64_t, uint32_t> UnixFromFileTime(uint64_t fileTime) {
  int64_t seconds =
      static_cast<int64_t>(fileTime / 10000000ULL) - kFileTimeEpochOffset;
  uint32_t nanos = static_cast<uint32_t>(fileTime % 10000000ULL) * 100;
  return {seconds, nanos};
}

}  // namespace internal

// ------------------------------------------------------------ file times

bool BDateTimeToUTC(const BDateTime& dt, ACE_UINT64& fileTime) {
  unsigned int y, m, d;
  dt.GetDate().GetYMD(y, m, d);
  localzone::Record local;
  local.year = static_cast<int32_t>(y);
  local.month = static_cast<int32_t>(m);
  local.day = static_cast<int32_t>(d);
  local.hour = dt.GetTime().GetHour();
  local.minute = dt.GetTime().GetMinute();
  local.second = dt.GetTime().GetSecond();
  local.millisecond = dt.GetTime().GetMilliSecond();
  int64_t utc = 0;
  if (localzone::IsValidRecord(local) &&
      !localzone::ResolveLocal(localzone::RecordToSeconds(local),
                               localzone::OffsetAt, utc)) {
    COM_LOG((LM_ERROR,
             "OSFile::BDateTimeToUTC: Error getting the time zone bias: OS "
             "Error: %m.\nWill not convert BDateTime to UTC\n"));
    return false;
  }
  int64_t const since1601 =
      utc + static_cast<int64_t>(kFileTimeEpochOffsetSeconds);
  if (!localzone::IsValidRecord(local) || since1601 < 0) {
    errno = EINVAL;
    COM_LOG((LM_ERROR,
             "OSFile::BDateTimeToUTC: SystemTimeToFileTime() failed. OS "
             "Error: %m\n"));
    return false;
  }
  fileTime =
      static_cast<ACE_UINT64>(since1601) * kFileTimeUnitsPerSecond +
      static_cast<ACE_UINT64>(local.millisecond) * kFileTimeUnitsPerMillisecond;
  return true;
}

bool UTCToBDateTime(ACE_UINT64 fileTime, BDateTime& dt) {
  int64_t const since1601 =
      static_cast<int64_t>(fileTime / kFileTimeUnitsPerSecond);
  int64_t const seconds =
      since1601 - static_cast<int64_t>(kFileTimeEpochOffsetSeconds);
  int32_t const ms =
      static_cast<int32_t>(fileTime / kFileTimeUnitsPerMillisecond % 1000);
  int32_t offset = 0;
  localzone::Record local;
  bool ok = fileTime <= kFileTimeMax;
  if (!ok) errno = EINVAL;
  if (ok) ok = localzone::OffsetAt(seconds, offset);
  if (!ok) {
    COM_LOG((LM_ERROR,
             "OSFile::UTCToBDateTime: FileTimeToLocalFileTime() failed. OS "
             "Error: %m\n"));
    return false;
  }
  // The local file time must itself be a valid file time.
  int64_t const local1601 = since1601 + offset;
  if (local1601 < 0 ||
      static_cast<ACE_UINT64>(local1601) >=
          kFileTimeMax / kFileTimeUnitsPerSecond ||
      !localzone::SecondsToLocal(seconds, ms, local)) {
    errno = EINVAL;
    COM_LOG((LM_ERROR,
             "OSFile::UTCToBDateTime: FileTimeToSystemTime() failed. OS "
             "Error: %m\n"));
    return false;
  }
  dt = BDateTime(
      BDate(static_cast<unsigned int>(local.year),
            static_cast<unsigned int>(local.month),
            static_cast<unsigned int>(local.day)),
      BTime(static_cast<unsigned int>(
          ((local.hour * 60 + local.minute) * 60 + local.second) * 1000 + ms)));
  return true;
}

// ================================================================ FileInfo

FileInfo::FileInfo() : size_(0), creationTime_(0), modifiedTime_(0) {}

FileInfo::FileInfo(const char* path, size_t length, int size,
                   ACE_UINT64 creationTime, ACE_UINT64 modifiedTime)
    : path_(path, length),
      size_(size),
      creationTime_(creationTime),
      modifiedTime_(modifiedTime) {}

FileInfo::FileInfo(const ACE_CString& path, int size, ACE_UINT64 creationTime,
                   ACE_UINT64 modifiedTime)
    : path_(path),
      size_(size),
      creationTime_(creationTime),
      modifiedTime_(modifiedTime) {}

namespace {

// `fileTime` as a local date and time; the invalid BDateTime, logged as a
// failure of `caller`, when it cannot be converted.
BDateTime LocalTimeOrLog(ACE_UINT64 fileTime, const char* caller) {
  BDateTime dt;
  if (!UTCToBDateTime(fileTime, dt)) {
    COM_LOG((LM_CRITICAL, "FileInfo::%s: Failed.\n", caller));
    return BDateTime();
  }
  return dt;
}

}  // namespace

BDateTime FileInfo::creationLocalTime() const {
  return LocalTimeOrLog(creationTime_, "creationLocalTime");
}

BDateTime FileInfo::modifiedLocalTime() const {
  return LocalTimeOrLog(modifiedTime_, "modifiedLocalTime");
}

ACE_CString FileTimeToString(const ACE_UINT64& fileTime) {
  // Civil date of a day count since 1601-01-01 (a 400-year cycle start).
  ACE_UINT64 seconds = fileTime / 10000000ULL;
  ACE_UINT64 days = seconds / 86400;
  unsigned secOfDay = static_cast<unsigned>(seconds % 86400);
  // Count from 0000-03-01, so that leap days end each 4-year cycle;
  // 1601-01-01 is day 584694 after it.
  int64_t z = static_cast<int64_t>(days) + 584694;
  int64_t era = z / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%02d/%02d/%02lld %02u:%02u:%02u", month, day,
                static_cast<long long>(year), secOfDay / 3600,
                secOfDay / 60 % 60, secOfDay % 60);
  return ACE_CString(buf);
}

bool getFileTimes(const ACE_CString& path, FileInfo& info) {
  if (path.length() == 0) return false;
  struct statx stx;
  if (!StatxAt(AT_FDCWD, path.c_str(), true, stx)) {
    COM_LOG((LM_ERROR,
             "OSFile::getFileTimes: Unable to get the file attributes for %s. "
             "OS Error: %m\n",
             path.c_str()));
    return false;
  }
  info.path(path);
  info.creationTime(CreationTicks(stx));
  info.modifiedTime(ModifiedTicks(stx));
  return true;
}

namespace {

bool HasWildcard(const char* s) { return std::strpbrk(s, "*?") != nullptr; }

// The open-for-write-and-set part of the two time setters.
bool SetFileTimeOf(const char* path, const BDateTime& when, bool creation,
                   const char* convertMsg, const char* openMsg,
                   const char* setMsg) {
  ACE_UINT64 ft = 0;
  if (!BDateTimeToUTC(when, ft)) {
    COM_LOG((LM_ERROR, convertMsg, path));
    return false;
  }
  int fd = ::open(path, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    COM_LOG((LM_ERROR, openMsg, path));
    return false;
  }
  bool ok = false;
  if (creation) {
    errno = ENOTSUP;
  } else {
    auto unix = internal::UnixFromFileTime(ft);
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(unix.first);
    times[1].tv_nsec = static_cast<long>(unix.second);
    ok = ::futimens(fd, times) == 0;
  }
  if (!ok) COM_LOG((LM_ERROR, setMsg, path));
  CloseKeepingErrno(fd);
  return ok;
}

}  // namespace

bool getFileLastModTime(const char* path, BDateTime& out) {
  struct statx stx;
  bool found = path != nullptr && StatxAt(AT_FDCWD, path, true, stx);
  if (!found && path != nullptr &&
      HasWildcard(getLastPathElement(path).c_str())) {
    Enumeration en;
    Entry e;
    if (en.OpenPattern(path) && en.Next(e)) {
      found = StatxAt(en.fd(), e.name, true, stx) ||
              StatxAt(en.fd(), e.name, false, stx);
    }
    if (!found && errno == 0) errno = ENOENT;
  }
  if (!found) {
    COM_LOG((LM_ERROR,
             "OSFile::getFileLastModTime: FindFirstFile() failed. OS Error: "
             "%m\n"));
    return false;
  }
  return UTCToBDateTime(ModifiedTicks(stx), out);
}

bool setFileLastModTime(const char* path, const BDateTime& when) {
  return SetFileTimeOf(
      path, when, false,
      "OSFile::setFileLastModTime: Failed to convert BDateTime to UTC for "
      "file %s\n",
      "OSFile::setFileLastModTime: Failed to open file %s in O_RDWR mode. OS "
      "Error: %m\n",
      "OSFile::setFileLastModTime: SetFileTime() failed for file %s. OS "
      "Error: %m\n");
}

bool setFileCreateTime(const char* path, const BDateTime& when) {
  return SetFileTimeOf(
      path, when, true,
      "OSFile::setFileCreateTime: Failed to convert BDateTime to UTC for file "
      "%s\n",
      "OSFile::setFileCreateTime: Failed to open file %s in O_RDWR mode. OS "
      "Error: %m\n",
      "OSFile::setFileCreateTime: SetFileTime() failed for file %s. OS Error: "
      "%m\n");
}

}  // namespace Kelvane
