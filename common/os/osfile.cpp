#include "common/os/osfile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <zlib.h>

#include "common/base/comlog.h"
#include "common/base/internal/localzone.h"
#include "common/os/configstore.h"
#include "common/os/internal/osfilerules.h"
#include "common/os/internal/packagenote.h"

namespace Kelvane {

// ================================================================ pure rules

namespace internal {

namespace {

inline char FoldChar(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool MatchGlob(const char* n, const char* p) {
  // Iterative '*' matching with one back-track point.
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*n != '\0') {
    if (*p == '*') {
      star = p++;
      resume = n;
    } else if (*p == '?' || (*p != '\0' && FoldChar(*p) == FoldChar(*n))) {
      ++p;
      ++n;
    } else if (star != nullptr) {
      p = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (*p == '*') ++p;
  return *p == '\0';
}

}  // namespace

bool MatchesFindPattern(const char* name, const char* pattern) {
  if (MatchGlob(name, pattern)) return true;
  size_t len = std::strlen(pattern);
  if (len >= 2 && pattern[len - 2] == '.' && pattern[len - 1] == '*' &&
      std::strchr(name, '.') == nullptr) {
    std::string shorter(pattern, len - 2);
    return MatchGlob(name, shorter.c_str());
  }
  return false;
}

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

bool SuffixMatches(const char* full, size_t fullLength, const char* suffix,
                   size_t suffixLength) {
  if (fullLength < suffixLength) return false;
  if (suffixLength == 1 && suffix[0] == '*') return true;
  return ::strncasecmp(full + fullLength - suffixLength, suffix,
                       suffixLength) == 0;
}

uint64_t RoundUpToClusters(uint64_t size, uint64_t cluster) {
  if (cluster == 0) return 0;
  uint64_t top = size + cluster - 1;
  return top - top % cluster;
}

bool ParseMountInfoLine(const std::string& line, MountEntry& out) {
  // id parent major:minor root mountpoint options [optional...] - type
  // source superoptions
  std::vector<std::string> f;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    if (i >= line.size()) break;
    size_t j = line.find(' ', i);
    if (j == std::string::npos) j = line.size();
    f.push_back(line.substr(i, j - i));
    i = j;
  }
  if (f.size() < 7) return false;
  size_t dash = 6;
  while (dash < f.size() && f[dash] != "-") ++dash;
  if (dash + 2 >= f.size()) return false;
  unsigned maj = 0, min = 0;
  char tail = 0;
  if (std::sscanf(f[2].c_str(), "%u:%u%c", &maj, &min, &tail) != 2) {
    return false;
  }
  auto unescape = [](const std::string& s) {
    std::string r;
    for (size_t k = 0; k < s.size(); ++k) {
      if (s[k] == '\\' && k + 3 < s.size() + 0 && s[k + 1] >= '0' &&
          s[k + 1] <= '3' && s[k + 2] >= '0' && s[k + 2] <= '7' &&
          s[k + 3] >= '0' && s[k + 3] <= '7') {
        r += static_cast<char>((s[k + 1] - '0') * 64 + (s[k + 2] - '0') * 8 +
                               (s[k + 3] - '0'));
        k += 3;
      } else {
        r += s[k];
      }
    }
    return r;
  };
  out.major = maj;
  out.minor = min;
  out.mountPoint = unescape(f[4]);
  out.fsType = f[dash + 1];
  out.source = unescape(f[dash + 2]);
  return true;
}

std::vector<std::string> SelectDrivesByCapacity(
    const std::vector<std::pair<std::string, uint64_t>>& roots) {
  std::map<uint64_t, std::string> byCapacity;
  for (const auto& r : roots) byCapacity[r.second] = r.first;
  std::vector<std::string> out;
  for (auto it = byCapacity.rbegin(); it != byCapacity.rend(); ++it) {
    out.push_back(it->second);
  }
  return out;
}

}  // namespace internal

// ================================================================ helpers

namespace {

using internal::FileTimeFromUnix;

const char kArchiveAttribute[] = "user.kelvane.archive";

ACE_CString Sub(const ACE_CString& s, size_t from, size_t count) {
  return s.substring(from, count);
}

// Position of the last c in s, or npos.
size_t LastOf(const ACE_CString& s, char c) { return s.rfind(c); }

size_t FirstSeparator(const ACE_CString& s) {
  const char* p = s.c_str();
  for (size_t i = 0; i < s.length(); ++i) {
    if (p[i] == '/' || p[i] == '\\') return i;
  }
  return ACE_CString::npos;
}

// Restores errno on scope exit, for clean-up calls after a failure.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_;
};

void CloseKeepingErrno(int fd) {
  ErrnoKeeper keep;
  ::close(fd);
}

bool StatPath(const char* path, struct stat& st) {
  return path != nullptr && ::stat(path, &st) == 0;
}

// The kind of a directory entry. A link is classified by its target.
enum class Kind { kFile, kDirectory };

struct Entry {
  const char* name;
  Kind kind;
  bool link;
  unsigned char type;  // d_type
};

bool IsDotOrDotDot(const char* n) {
  return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'));
}

// Directory enumeration: "." and ".." first, then readdir(3) order, the
// names filtered by a find pattern ("*" and "*.*" match everything).
class Enumeration {
 public:
  Enumeration() = default;
  ~Enumeration() { Close(); }
  Enumeration(const Enumeration&) = delete;
  Enumeration& operator=(const Enumeration&) = delete;

  // Opens the folder `fd` refers to (taking ownership of it).
  bool OpenFd(int fd, const char* pattern = "*") {
    dir_ = ::fdopendir(fd);
    if (dir_ == nullptr) {
      CloseKeepingErrno(fd);
      return false;
    }
    SetPattern(pattern);
    return true;
  }

  // Opens a "folder/pattern" text as a find-first call takes it: the folder
  // is what precedes the last '/' ("." without one, "/" for a leading one).
  bool OpenPattern(const ACE_CString& full) {
    std::string text(full.c_str(), full.length());
    size_t slash = text.rfind('/');
    std::string folder, pattern;
    if (slash == std::string::npos) {
      folder = ".";
      pattern = text;
    } else {
      folder = slash == 0 ? "/" : text.substr(0, slash);
      pattern = text.substr(slash + 1);
    }
    if (pattern.empty()) {
      errno = ENOENT;
      return false;
    }
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    return OpenFd(fd, pattern.c_str());
  }

  int fd() const { return ::dirfd(dir_); }

  // The next matching entry; false at the end.
  bool Next(Entry& e) {
    while (dots_ < 2) {
      const char* name = dots_++ == 0 ? "." : "..";
      if (Matches(name)) {
        e = Entry{name, Kind::kDirectory, false, DT_DIR};
        return true;
      }
    }
    for (;;) {
      struct dirent* d = ::readdir(dir_);
      if (d == nullptr) return false;
      if (IsDotOrDotDot(d->d_name) || !Matches(d->d_name)) continue;
      e.name = d->d_name;
      e.type = d->d_type;
      e.link = false;
      Classify(e);
      return true;
    }
  }

  void Close() {
    if (dir_ != nullptr) {
      ErrnoKeeper keep;
      ::closedir(dir_);
      dir_ = nullptr;
    }
  }

 private:
  void SetPattern(const char* pattern) {
    all_ = std::strcmp(pattern, "*") == 0 || std::strcmp(pattern, "*.*") == 0;
    pattern_ = pattern;
  }

  bool Matches(const char* name) const {
    return all_ || internal::MatchesFindPattern(name, pattern_.c_str());
  }

  void Classify(Entry& e) const {
    unsigned char t = e.type;
    if (t == DT_UNKNOWN) {
      struct stat st;
      if (::fstatat(fd(), e.name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        e.kind = Kind::kFile;
        return;
      }
      t = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : DT_REG;
      e.type = t;
    }
    if (t == DT_LNK) {
      e.link = true;
      struct stat st;
      e.kind = ::fstatat(fd(), e.name, &st, 0) == 0 && S_ISDIR(st.st_mode)
                   ? Kind::kDirectory
                   : Kind::kFile;
      return;
    }
    e.kind = t == DT_DIR ? Kind::kDirectory : Kind::kFile;
  }

  DIR* dir_ = nullptr;
  int dots_ = 0;
  bool all_ = true;
  std::string pattern_;
};

// statx of a name below a folder descriptor.
bool StatxAt(int dirFd, const char* name, bool follow, struct statx& stx) {
  unsigned mask = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_MTIME |
                  STATX_CTIME | STATX_BTIME;
  int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  return ::statx(dirFd, name, flags, mask, &stx) == 0;
}

ACE_UINT64 CreationTicks(const struct statx& stx) {
  const struct statx_timestamp& t =
      (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_ctime;
  return FileTimeFromUnix(t.tv_sec, t.tv_nsec);
}

ACE_UINT64 ModifiedTicks(const struct statx& stx) {
  return FileTimeFromUnix(stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec);
}

bool IsReadOnlyMode(mode_t mode) { return (mode & 0222) == 0; }

// The path with trailing '/' removed (a lone "/" stays), so that lstat sees
// a link as a link.
std::string WithoutTrailingSlashes(const ACE_CString& path) {
  std::string p(path.c_str(), path.length());
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

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

// ================================================================ paths

ACE_CString normalizePath(const ACE_CString& path, bool trailingSeparator) {
  if (path.length() == 0) return path;
  std::string s(path.c_str(), path.length());
  std::replace(s.begin(), s.end(), '\\', '/');
  if (trailingSeparator && s.back() != '/') s += '/';
  return ACE_CString(s.data(), s.size());
}

void concatPath(ACE_CString& result, const char* dir, const char* name) {
  if (dir == nullptr && name == nullptr) return;
  result = dir != nullptr ? dir : name;
  if (name == nullptr) return;
  bool endsWithSeparator =
      result.length() > 0 && result[result.length() - 1] == '/';
  bool startsWithSeparator = name[0] == '/';
  if (!endsWithSeparator && !startsWithSeparator) {
    result += "/";
    result += name;
  } else if (endsWithSeparator && startsWithSeparator) {
    result += name + 1;
  } else {
    result += name;
  }
}

int splitPath(ACE_CString& path, ACE_CString& name) {
  size_t at = LastOf(path, '/');
  if (at == ACE_CString::npos) at = LastOf(path, '\\');
  if (at == ACE_CString::npos) return -1;
  name = path.substring(at + 1);
  path = Sub(path, 0, at);
  return 0;
}

ACE_CString getLastPathElement(const ACE_CString& path) {
  ACE_CString s = normalizePath(path, false);
  if (s.length() > 0 && s[s.length() - 1] == '/') s = Sub(s, 0, s.length() - 1);
  size_t at = LastOf(s, '/');
  return at == ACE_CString::npos ? s : s.substring(at + 1);
}

ACE_CString getAllButLastPathElement(const ACE_CString& path) {
  ACE_CString s = path;
  if (s.length() > 0 &&
      (s[s.length() - 1] == '/' || s[s.length() - 1] == '\\')) {
    s = Sub(s, 0, s.length() - 1);
  }
  size_t at = LastOf(s, '/');
  if (at == ACE_CString::npos) at = LastOf(s, '\\');
  return at == ACE_CString::npos ? s : Sub(s, 0, at);
}

ACE_CString getDriveElement(const ACE_CString& path) {
  size_t at = FirstSeparator(path);
  return at == ACE_CString::npos ? path : Sub(path, 0, at);
}

ACE_CString getAllButDriveElement(const ACE_CString& path) {
  size_t at = FirstSeparator(path);
  if (at == ACE_CString::npos || at == 0) return path;
  return path.substring(at + 1);
}

ACE_CString getFileX(const ACE_CString& path) {
  size_t at = LastOf(path, '.');
  return at == ACE_CString::npos ? ACE_CString() : path.substring(at + 1);
}

ACE_CString fileNameRemoveX(const ACE_CString& path) {
  size_t at = LastOf(path, '.');
  return at == ACE_CString::npos ? path : Sub(path, 0, at);
}

void PathToList(const char* path, std::list<ACE_CString>& out) {
  if (path == nullptr) return;
  const char* p = path;
  while (*p != '\0') {
    const char* start = p;
    while (*p != '\0' && *p != '/' && *p != '\\') ++p;
    if (p > start) out.push_back(ACE_CString(start, p - start));
    if (*p != '\0') ++p;
  }
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

// ================================================================ files

bool isFile(const ACE_CString& path) {
  struct stat st;
  return StatPath(path.c_str(), st) && !S_ISDIR(st.st_mode);
}

bool isDirectory(const ACE_CString& path) {
  struct stat st;
  return StatPath(path.c_str(), st) && S_ISDIR(st.st_mode);
}

bool isReadOnly(const ACE_CString& path) {
  struct stat st;
  return StatPath(path.c_str(), st) && IsReadOnlyMode(st.st_mode);
}

int isAccessible(const ACE_CString& path) {
  struct stat st;
  if (StatPath(path.c_str(), st)) return 1;
  return (errno == ETIMEDOUT || errno == EHOSTDOWN) ? 0 : -1;
}

bool isWriteable(const ACE_CString& path) {
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  if (errno == EISDIR) return ::access(path.c_str(), R_OK | W_OK) == 0;
  return false;
}

bool isBusy(const ACE_CString& path) {
  if (!isFile(path)) return false;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  bool busy = false;
  if (::fcntl(fd, F_SETLEASE, F_WRLCK) == 0) {
    ::fcntl(fd, F_SETLEASE, F_UNLCK);
  } else {
    busy = errno == EAGAIN;
  }
  CloseKeepingErrno(fd);
  return busy;
}

namespace {

// Copies `size` bytes from `in` to `out`, in the kernel where it can.
bool CopyContent(int in, int out, uint64_t size) {
  uint64_t done = 0;
  bool kernelCopy = true;
  while (done < size) {
    size_t want =
        static_cast<size_t>(std::min<uint64_t>(size - done, 1ULL << 30));
    ssize_t n = -1;
    if (kernelCopy) {
      n = ::copy_file_range(in, nullptr, out, nullptr, want, 0);
      if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                    errno == EOPNOTSUPP || errno == EBADF)) {
        kernelCopy = false;
        continue;
      }
    } else {
      n = ::sendfile(out, in, nullptr, want);
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;  // the source shrank
    done += static_cast<uint64_t>(n);
  }
  return true;
}

}  // namespace

int FileCopy(const ACE_CString& from, const ACE_CString& to,
             bool failIfExists) {
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (in < 0) return -1;
  struct stat src;
  if (::fstat(in, &src) != 0) {
    CloseKeepingErrno(in);
    return -1;
  }
  if (S_ISDIR(src.st_mode)) {
    ::close(in);
    errno = EISDIR;
    return -1;
  }
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY;
  if (failIfExists) flags |= O_EXCL;
  int out = ::open(to.c_str(), flags, src.st_mode & 07777);
  if (out < 0) {
    CloseKeepingErrno(in);
    return -1;
  }
  struct stat dst;
  if (::fstat(out, &dst) != 0 ||
      (dst.st_dev == src.st_dev && dst.st_ino == src.st_ino)) {
    if (errno == 0 || (dst.st_dev == src.st_dev && dst.st_ino == src.st_ino))
      errno = EINVAL;
    CloseKeepingErrno(out);
    CloseKeepingErrno(in);
    return -1;
  }
  // Truncate only what holds data: on ext4 a truncation to 0 makes the
  // close start writing the new content back at once.
  bool ok = (dst.st_size == 0 || ::ftruncate(out, 0) == 0) &&
            CopyContent(in, out, static_cast<uint64_t>(src.st_size)) &&
            ::fchmod(out, src.st_mode & 07777) == 0;
  if (ok) {
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1] = src.st_mtim;
    ok = ::futimens(out, times) == 0;
  }
  if (!ok) {
    CloseKeepingErrno(out);
    CloseKeepingErrno(in);
    ErrnoKeeper keep;
    ::unlink(to.c_str());
    return -1;
  }
  ::close(in);
  return ::close(out) == 0 ? 0 : -1;
}

int CreateLink(const ACE_CString& link, const ACE_CString& target) {
  return ::link(target.c_str(), link.c_str()) == 0 ? 0 : -1;
}

bool FileSize(const ACE_CString& path, ACE_UINT64& size) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  bool ok = FileSize(static_cast<ACE_HANDLE>(fd), size);
  CloseKeepingErrno(fd);
  return ok;
}

bool FileSize(ACE_HANDLE handle, ACE_UINT64& size) {
  if (handle == ACE_INVALID_HANDLE) return false;
  struct stat st;
  if (::fstat(handle, &st) != 0) return false;
  size = static_cast<ACE_UINT64>(st.st_size);
  return true;
}

bool FileSeek(ACE_HANDLE handle, ACE_UINT64 offset, int moveMethod,
              ACE_UINT64& newPosition) {
  if (handle == ACE_INVALID_HANDLE) return false;
  off_t at = ::lseek(handle, static_cast<off_t>(offset), moveMethod);
  if (at == static_cast<off_t>(-1)) return false;
  newPosition = static_cast<ACE_UINT64>(at);
  return true;
}

ACE_CString FileToString(const ACE_CString& path) {
  const std::string shown(path.c_str(), path.length());
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) throw std::runtime_error("Unable to open file " + shown);
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    throw std::runtime_error("Unable to open file " + shown);
  }
  size_t size = static_cast<size_t>(st.st_size);
  std::string buf(size + 1, '\0');
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::read(fd, &buf[got], size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  if (got < size) throw std::runtime_error("Error reading file " + shown);
  return ACE_CString(buf.c_str());
}

int ForceDelete(const ACE_CString& path) {
  if (!isFile(path)) return 0;
  if (::unlink(path.c_str()) == 0) return 0;
  if (errno == EACCES || errno == EPERM) {
    COM_LOG((LM_DEBUG,
             "OSFile::ForceDelete: Access denied. Assuming this is a delete on "
             "a file already marked for deletion\n"));
    return 0;
  }
  return -1;
}

bool touchFile(ACE_HANDLE handle) {
  if (handle == ACE_INVALID_HANDLE) return false;
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = 0;
  times[1].tv_nsec = UTIME_NOW;
  return ::futimens(handle, times) == 0;
}

bool touchFile(const char* path) {
  if (path == nullptr) return false;
  int fd = ::open(path, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) return false;
  bool ok = touchFile(static_cast<ACE_HANDLE>(fd));
  CloseKeepingErrno(fd);
  return ok;
}

namespace {

bool ArchiveBit(const char* path, const struct stat& st) {
  char v[4] = {0};
  ssize_t n = ::getxattr(path, kArchiveAttribute, v, sizeof v - 1);
  if (n > 0) return v[0] == '1';
  return S_ISREG(st.st_mode);
}

}  // namespace

bool getFileAttribute(const char* path, FileAttribute which, bool& value) {
  value = false;
  struct stat st;
  if (!StatPath(path, st)) return false;
  switch (which) {
    case ReadOnly:
      value = IsReadOnlyMode(st.st_mode);
      return true;
    case Archive:
      value = ArchiveBit(path, st);
      return true;
  }
  return false;
}

bool setFileAttribute(const char* path, FileAttribute which, bool on) {
  struct stat st;
  if (!StatPath(path, st)) return false;
  switch (which) {
    case ReadOnly: {
      mode_t mode = st.st_mode & 07777;
      mode = on ? (mode & ~static_cast<mode_t>(0222)) : (mode | S_IWUSR);
      return ::chmod(path, mode) == 0;
    }
    case Archive:
      return ::setxattr(path, kArchiveAttribute, on ? "1" : "0", 1, 0) == 0;
  }
  return false;
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

// ================================================================ folders

int CreateDirectoryRecursive(const ACE_CString& path) {
  if (path.length() == 0) return 0;
  ACE_CString dir = normalizePath(path, true);
  dir = Sub(dir, 0, dir.length() - 1);
  if (::mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST) return 0;
  // A missing or non-folder parent is "path not found".
  int error = errno;
  if (error != ENOENT && error != ENOTDIR) return error;
  size_t at = LastOf(dir, '/');
  if (at == ACE_CString::npos) return error;
  CreateDirectoryRecursive(Sub(dir, 0, at));
  return ::mkdir(dir.c_str(), 0777) == 0 ? 0 : error;
}

namespace {

// Deletes the contents of the folder open as `dirFd` (shown as `shown`, with
// a trailing '/'), and then the folder `name` below `parentFd`. Never
// follows a link: folders are opened with O_NOFOLLOW relative to their
// parent, so a folder swapped for a link in the meantime fails to open.
int DeleteTreeAt(int parentFd, const char* name, const std::string& shown);

void DeleteContents(Enumeration& en, const std::string& shown) {
  Entry e;
  while (en.Next(e)) {
    if (e.kind == Kind::kDirectory) {
      if (e.name[0] == '.') continue;
      DeleteTreeAt(en.fd(), e.name, shown + e.name);
      // A link to a folder is refused above; the link itself goes, as the
      // removal of a linked folder removes the link.
      if (e.link) ::unlinkat(en.fd(), e.name, 0);
      continue;
    }
    if (!e.link) {
      struct stat st;
      if (::fstatat(en.fd(), e.name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          !S_ISLNK(st.st_mode) && IsReadOnlyMode(st.st_mode)) {
        continue;
      }
    }
    ::unlinkat(en.fd(), e.name, 0);
  }
}

int DeleteTreeAt(int parentFd, const char* name, const std::string& shown) {
  struct stat st;
  if (::fstatat(parentFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return (errno == ENOENT || errno == ENOTDIR) ? 0 : -1;
  }
  if (S_ISLNK(st.st_mode)) {
    COM_LOG((LM_DEBUG,
             "OSFile::DeleteDirectoryRecursive: Won't delete %s, it is a "
             "reparse point\n",
             shown.c_str()));
    return -1;
  }
  int fd =
      ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? 0 : -1;
  {
    Enumeration en;
    if (!en.OpenFd(fd)) return errno == ENOENT ? 0 : -1;
    DeleteContents(en, shown + "/");
  }
  if (::unlinkat(parentFd, name, AT_REMOVEDIR) == 0) return 0;
  COM_LOG((LM_DEBUG,
           "OSFile::DeleteDirectoryRecursive: Error deleting directory %s. OS "
           "Error: %m\n",
           shown.c_str()));
  return -1;
}

}  // namespace

int DeleteDirectoryRecursive(const ACE_CString& path) {
  const std::string p = WithoutTrailingSlashes(path);
  return DeleteTreeAt(AT_FDCWD, p.c_str(), p);
}

int ClassicDeleteDirectoryRecursive(const ACE_CString& path) {
  const std::string p = WithoutTrailingSlashes(path);
  struct stat st;
  if (::lstat(p.c_str(), &st) != 0) {
    return (errno == ENOENT || errno == ENOTDIR) ? 0 : -1;
  }
  if (S_ISLNK(st.st_mode)) {
    COM_LOG((LM_DEBUG, "Won't delete %s; it is a reparse point\n", p.c_str()));
    return -1;
  }
  int fd = ::open(p.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? 0 : -1;
  Enumeration en;
  if (!en.OpenFd(fd)) return errno == ENOENT ? 0 : -1;
  const std::string shown = p == "/" ? p : p + "/";
  Entry e;
  while (en.Next(e)) {
    if (e.kind == Kind::kDirectory) {
      if (e.name[0] == '.') continue;
      if (DeleteTreeAt(en.fd(), e.name, shown + e.name) == -1) return -1;
      continue;
    }
    if (!e.link) {
      struct stat fst;
      if (::fstatat(en.fd(), e.name, &fst, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISREG(fst.st_mode) && IsReadOnlyMode(fst.st_mode)) {
        ::fchmodat(en.fd(), e.name, (fst.st_mode & 07777) | S_IWUSR, 0);
      }
    }
    if (::unlinkat(en.fd(), e.name, 0) != 0) {
      COM_LOG((LM_DEBUG, "Error deleting files %s; reason -- %n",
               (shown + e.name).c_str(), errno));
      return -1;
    }
  }
  return 0;
}

namespace {

ACE_UINT64 DirectorySizeAt(int fd) {
  struct statvfs vfs;
  ACE_UINT64 cluster = 0;
  if (::fstatvfs(fd, &vfs) == 0) {
    cluster = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
  }
  Enumeration en;
  if (!en.OpenFd(fd)) return 0;
  ACE_UINT64 total = 0;
  Entry e;
  while (en.Next(e)) {
    if (e.kind == Kind::kDirectory) {
      if (IsDotOrDotDot(e.name) || e.link) continue;
      int sub = ::openat(en.fd(), e.name,
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub >= 0) total += DirectorySizeAt(sub);
      continue;
    }
    if (cluster == 0) continue;
    struct statx stx;
    if (StatxAt(en.fd(), e.name, false, stx)) {
      total += internal::RoundUpToClusters(stx.stx_size, cluster);
    }
  }
  return total;
}

}  // namespace

ACE_UINT64 DirectorySize(const ACE_CString& path, bool recursive) {
  ACE_CString dir = normalizePath(path, true);
  int fd = ::open(dir.length() ? dir.c_str() : "",
                  O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  if (recursive) return DirectorySizeAt(fd);
  struct statvfs vfs;
  ACE_UINT64 cluster = 0;
  if (::fstatvfs(fd, &vfs) == 0) {
    cluster = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
  }
  Enumeration en;
  if (!en.OpenFd(fd) || cluster == 0) return 0;
  ACE_UINT64 total = 0;
  Entry e;
  while (en.Next(e)) {
    if (e.kind == Kind::kDirectory) continue;  // a folder entry's size is 0
    struct statx stx;
    if (StatxAt(en.fd(), e.name, false, stx)) {
      total += internal::RoundUpToClusters(stx.stx_size, cluster);
    }
  }
  return total;
}

int CountFiles(const ACE_CString& path) {
  Enumeration en;
  if (!en.OpenPattern(path + "*.*")) return 0;
  uint32_t count = 0;
  Entry e;
  while (en.Next(e)) ++count;
  // The first entry is not counted, and "." and ".." are taken off again.
  return static_cast<int32_t>(count - 3);
}

bool isDirectoryEmpty(const ACE_CString& path) {
  Enumeration en;
  if (!en.OpenPattern(path + "*.*")) return true;
  Entry e;
  if (!en.Next(e)) return true;  // the first entry is not looked at
  while (en.Next(e)) {
    if (!IsDotOrDotDot(e.name)) return false;
  }
  return true;
}

void GetFileSubDirectories(std::vector<ACE_CString>& out,
                           const ACE_CString& path, bool nameOnly) {
  ACE_CString dir = normalizePath(path, true);
  Enumeration en;
  if (!en.OpenPattern(dir + "*")) return;
  Entry e;
  while (en.Next(e)) {
    if (e.kind != Kind::kDirectory || e.name[0] == '.') continue;
    out.push_back(nameOnly ? ACE_CString(e.name) : dir + e.name);
  }
}

// ================================================================ listings

namespace {

// A listed file waiting for its FileInfo: the shown path lives in the
// walk's arena. FileInfos are made once at the end into a reserved vector,
// since ACE_CString copies (it cannot move) whenever a vector grows.
struct Pending {
  size_t offset;
  size_t length;
  int size;
  ACE_UINT64 created;
  ACE_UINT64 modified;
};

struct WalkArgs {
  std::vector<Pending>* pending;
  std::string* arena;
  const char* suffix;
  size_t suffixLength;
  bool recursive;
  bool nameOnly;
  ACE_UINT64 from;
  ACE_UINT64 to;
  bool byCreationTime;
};

// Walks the folder open as `fd` whose normalised path (with a trailing '/')
// is `dir`. Takes ownership of `fd`.
int WalkAt(int fd, std::string& dir, const WalkArgs& a) {
  Enumeration en;
  if (!en.OpenFd(fd)) return -1;
  const size_t dirLength = dir.size();
  Entry e;
  while (en.Next(e)) {
    const size_t nameLength = std::strlen(e.name);
    if (e.kind == Kind::kDirectory) {
      if (!a.recursive || e.name[0] == '.' || e.link) continue;
      int sub = ::openat(en.fd(), e.name,
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (sub < 0) continue;
      dir.append(e.name, nameLength);
      dir += '/';
      WalkAt(sub, dir, a);
      dir.resize(dirLength);
      continue;
    }
    dir.append(e.name, nameLength);
    if (internal::SuffixMatches(dir.data(), dir.size(), a.suffix,
                                a.suffixLength)) {
      struct statx stx;
      if (StatxAt(en.fd(), e.name, e.link, stx) ||
          (e.link && StatxAt(en.fd(), e.name, false, stx))) {
        ACE_UINT64 created = CreationTicks(stx);
        ACE_UINT64 modified = ModifiedTicks(stx);
        ACE_UINT64 t = a.byCreationTime ? created : modified;
        if (a.from <= t && t <= a.to) {
          const char* shown = a.nameOnly ? e.name : dir.c_str();
          size_t shownLength = a.nameOnly ? nameLength : dir.size();
          a.pending->push_back(Pending{a.arena->size(), shownLength,
                                       static_cast<int>(static_cast<uint32_t>(
                                           stx.stx_size & 0xffffffffULL)),
                                       created, modified});
          a.arena->append(shown, shownLength);
        }
      }
    }
    dir.resize(dirLength);
  }
  return 0;
}

int Walk(std::vector<FileInfo>& out, const ACE_CString& dir, const char* suffix,
         bool recursive, bool nameOnly, ACE_UINT64 from, ACE_UINT64 to,
         bool byCreationTime) {
  ACE_CString normal = normalizePath(dir, true);
  int fd = ::open(normal.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (suffix == nullptr) suffix = "";
  std::vector<Pending> pending;
  std::string arena;
  WalkArgs a{&pending, &arena, suffix, std::strlen(suffix), recursive,
             nameOnly, from,   to,     byCreationTime};
  std::string path(normal.c_str(), normal.length());
  int rc = WalkAt(fd, path, a);
  out.reserve(out.size() + pending.size());
  for (const Pending& p : pending) {
    out.emplace_back(arena.data() + p.offset, p.length, p.size, p.created,
                     p.modified);
  }
  return rc;
}

}  // namespace

int GetFileList(std::vector<FileInfo>& out, const ACE_CString& dir,
                const char* suffix, bool recursive, bool nameOnly) {
  return Walk(out, dir, suffix, recursive, nameOnly, 0, ~ACE_UINT64(0), true);
}

void GetFileListByDate(std::vector<FileInfo>& out, const ACE_CString& dir,
                       const char* suffix, bool recursive, bool nameOnly,
                       ACE_UINT64 from, ACE_UINT64 to, bool byCreationTime) {
  Walk(out, dir, suffix, recursive, nameOnly, from, to, byCreationTime);
  // Sorts positions rather than the entries (whose paths copy on every
  // swap), then copies each entry once into its place.
  std::vector<uint32_t> order(out.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<uint32_t>(i);
  std::sort(order.begin(), order.end(), [&out](uint32_t a, uint32_t b) {
    return out[a].creationTime() < out[b].creationTime();
  });
  std::vector<FileInfo> sorted;
  sorted.reserve(out.size());
  for (uint32_t i : order) sorted.push_back(out[i]);
  out.swap(sorted);
}

bool GetFileListByBDate(std::vector<FileInfo>& out, const ACE_CString& dir,
                        const char* suffix, bool recursive, bool nameOnly,
                        const BDate* from, const BDate* to,
                        bool byCreationTime) {
  ACE_UINT64 start = 0;
  ACE_UINT64 end = ~ACE_UINT64(0);
  if (from != nullptr && !BDateTimeToUTC(BDateTime(*from, BTime(0u)), start)) {
    COM_LOG(
        (LM_ERROR, "OSFile::GetFileListByBDate: Failed to get start date\n"));
    return false;
  }
  if (to != nullptr) {
    // The day plus 86,400,000 ms: midnight at the start of the next day.
    BDate next(*to);
    next += 1;
    BDateTime last(next, BTime(0u));
    if (!BDateTimeToUTC(last, end)) {
      COM_LOG(
          (LM_ERROR, "OSFile::GetFileListByBDate: Failed to get end date\n"));
      return false;
    }
  }
  GetFileListByDate(out, dir, suffix, recursive, nameOnly, start, end,
                    byCreationTime);
  return true;
}

// ================================================================ compression

namespace {

// The .gz gets the source's last-write time, through the same local
// date-time the public getter and setter use.
void CopyLastModTime(const ACE_CString& from, const ACE_CString& to) {
  BDateTime when;
  if (getFileLastModTime(from.c_str(), when)) {
    setFileLastModTime(to.c_str(), when);
  }
}

gzFile OpenGzip(const ACE_CString& gzPath) {
  errno = 0;
  gzFile gz = ::gzopen(gzPath.c_str(), "wb9");
  if (gz == nullptr) {
    if (errno == 0) errno = ENOMEM;
    return nullptr;
  }
  // Larger buffers than zlib's 8 KiB: fewer write calls for the same output.
  ::gzbuffer(gz, 256 * 1024);
  return gz;
}

int FinishSource(const ACE_CString& path, bool deleteSource) {
  if (!deleteSource) return 0;
  return ::unlink(path.c_str()) == 0 ? 0 : -1;
}

// The file to compress, open for reading, with its status in `st`; -1 (errno
// set) when it cannot be opened or examined.
int OpenSource(const ACE_CString& path, struct stat& st) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return -1;
  if (::fstat(fd, &st) != 0) {
    CloseKeepingErrno(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int CompressFile(const ACE_CString& path, bool deleteSource) {
  struct stat st;
  int fd = OpenSource(path, st);
  if (fd < 0) return -1;
  const size_t size = static_cast<size_t>(st.st_size);
  void* map = nullptr;
  if (size > 0) {
    map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map == MAP_FAILED) {
      CloseKeepingErrno(fd);
      return -1;
    }
    ::madvise(map, size, MADV_SEQUENTIAL | MADV_WILLNEED);
  }
  ::close(fd);
  const ACE_CString gzPath = path + ".gz";
  gzFile gz = OpenGzip(gzPath);
  if (gz == nullptr) {
    if (map != nullptr) {
      ErrnoKeeper keep;
      ::munmap(map, size);
    }
    return -1;
  }
  // One write of the whole mapping; gzwrite takes an unsigned length, so a
  // mapping past 4 GiB goes in 1 GiB pieces.
  const char* data = static_cast<const char*>(map);
  size_t done = 0;
  bool ok = true;
  while (done < size) {
    unsigned piece =
        static_cast<unsigned>(std::min<size_t>(size - done, 1u << 30));
    if (::gzwrite(gz, data + done, piece) != static_cast<int>(piece)) {
      ok = false;
      break;
    }
    done += piece;
  }
  if (map != nullptr) ::munmap(map, size);
  if (::gzclose(gz) != Z_OK) ok = false;
  if (!ok) return -1;
  CopyLastModTime(path, gzPath);
  return FinishSource(path, deleteSource);
}

int CompressFile2(const ACE_CString& path, bool deleteSource) {
  struct stat st;
  int fd = OpenSource(path, st);
  if (fd < 0) return -1;
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  const ACE_CString gzPath = path + ".gz";
  ::unlink(gzPath.c_str());
  gzFile gz = OpenGzip(gzPath);
  if (gz == nullptr) {
    CloseKeepingErrno(fd);
    return -1;
  }
  std::unique_ptr<char[]> buf(new char[internal::kCompressChunk]);
  uint64_t remaining = static_cast<uint64_t>(st.st_size);
  int result = 0;
  while (remaining > 0) {
    const size_t want = static_cast<size_t>(
        std::min<uint64_t>(remaining, internal::kCompressChunk));
    size_t got = 0;
    while (got < want) {
      ssize_t n = ::read(fd, buf.get() + got, want - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    if (got != want || ::gzwrite(gz, buf.get(), static_cast<unsigned>(want)) !=
                           static_cast<int>(want)) {
      result = -1;
      break;
    }
    remaining -= want;
    // Let other threads in between chunks of a large file.
    if (remaining > 0) ::sched_yield();
  }
  ::close(fd);
  if (::gzclose(gz) != Z_OK) result = -1;
  CopyLastModTime(path, gzPath);
  if (result != 0) return -1;
  return FinishSource(path, deleteSource);
}

// ================================================================ system

int GetDriveSpace(ACE_UINT64& total, ACE_UINT64& freeToCaller,
                  const char* path) {
  ACE_CString dir = normalizePath(ACE_CString(path ? path : ""), true);
  struct statvfs vfs;
  if (::statvfs(dir.c_str(), &vfs) != 0) return -1;
  ACE_UINT64 unit = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
  total = static_cast<ACE_UINT64>(vfs.f_blocks) * unit;
  freeToCaller = static_cast<ACE_UINT64>(vfs.f_bavail) * unit;
  return 0;
}

namespace {

// The disk of a block device is fixed when sysfs says it is not removable;
// a partition asks its parent disk.
bool IsFixedBlockDevice(unsigned major, unsigned minor) {
  char link[64];
  std::snprintf(link, sizeof link, "/sys/dev/block/%u:%u", major, minor);
  char real[PATH_MAX];
  if (::realpath(link, real) == nullptr) return false;
  std::string dev(real);
  for (int up = 0; up < 2; ++up) {
    std::ifstream in(dev + "/removable");
    int removable = -1;
    if (in >> removable) return removable == 0;
    size_t slash = dev.rfind('/');
    if (slash == std::string::npos) break;
    dev.resize(slash);
  }
  return false;
}

}  // namespace

void GetLogicalDriveList(std::vector<ACE_CString>& out) {
  std::ifstream in("/proc/self/mountinfo");
  if (!in) {
    COM_LOG((LM_ERROR,
             "OSFile::GetLogicalDriveList: GetLogicalDriveStrings() failed. OS "
             "Error: %m.\n"));
    return;
  }
  std::vector<std::pair<std::string, uint64_t>> roots;
  std::string line;
  while (std::getline(in, line)) {
    internal::MountEntry m;
    if (!internal::ParseMountInfoLine(line, m) || m.major == 0) continue;
    if (!IsFixedBlockDevice(m.major, m.minor)) continue;
    std::string root = m.mountPoint;
    if (root.empty() || root.back() != '/') root += '/';
    ACE_UINT64 total = 0, avail = 0;
    if (GetDriveSpace(total, avail, root.c_str()) != 0) continue;
    roots.emplace_back(root, total);
  }
  if (in.bad()) {
    COM_LOG((LM_ERROR,
             "OSFile::GetLogicalDriveList: GetLogicalDriveStrings() 2 failed. "
             "OS Error: %m\n"));
    return;
  }
  for (const std::string& r : internal::SelectDrivesByCapacity(roots)) {
    out.push_back(ACE_CString(r.c_str(), r.size()));
  }
}

ACE_CString GetExecutablePath(bool directoryOnly) {
  char buf[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) return ACE_CString();
  ACE_CString path(buf, static_cast<size_t>(n));
  return directoryOnly ? getAllButLastPathElement(path) : path;
}

ACE_CString GetExecutableName(bool withoutExtension) {
  ACE_CString name = getLastPathElement(GetExecutablePath(false));
  if (withoutExtension) {
    size_t dot = LastOf(name, '.');
    if (dot != ACE_CString::npos) name = Sub(name, 0, dot);
  }
  return name;
}

namespace {
const char kSettingsKey[] = "SOFTWARE\\Kelvane";
}  // namespace

ACE_CString GetLogRoot() {
  ACE_CString value;
  if (ReadConfigString(kSettingsKey, "LogRoot", value) != 0) return "";
  // The value was read into a fixed buffer of 4096 bytes.
  if (value.length() > 4095) value = Sub(value, 0, 4095);
  return value;
}

ACE_CString GetServerPath() {
  ACE_CString value;
  int rc = ReadConfigString(kSettingsKey, "ServerPath", value);
  if (rc < 0) return "";
  if (rc > 0) value = "";
  if (value.length() > 4095) value = Sub(value, 0, 4095);
  return value + "/";
}

namespace {

// One version text of the note, without its spaces.
void QueryVersion(const ACE_CString& json, const char* key, ACE_CString& out) {
  ACE_CString value;
  if (PackageNoteField(json.c_str(), json.length(), key, value) != 0) {
    COM_LOG((LM_DEBUG, "OSFile::GetVersion: Unable to query version info\n"));
    return;
  }
  if (value.length() == 0) {
    COM_LOG((LM_DEBUG, "OSFile::GetVersion: Version value not available\n"));
    return;
  }
  std::string kept;
  for (size_t i = 0; i < value.length(); ++i) {
    if (value[i] != ' ') kept += value[i];
  }
  out = ACE_CString(kept.c_str(), kept.size());
}

}  // namespace

void GetApplicationVersions(const ACE_CString& file, ACE_CString& fileVersion,
                            ACE_CString& productVersion) {
  fileVersion = "";
  productVersion = "";
  if (!isFile(file)) {
    fileVersion = "Not available";
    productVersion = "Not available";
    return;
  }
  ACE_CString json;
  if (ReadPackageNote(file.c_str(), json) != 0) {
    // A note that is there but cannot be made out is a failed read; no note
    // at all is a resource of size 0.
    if (errno == EBADMSG || errno == EIO) {
      COM_LOG((LM_DEBUG,
               "OSFile::GetApplicationVersions: Unable to get file version "
               "info\n"));
    } else {
      COM_LOG((LM_DEBUG,
               "OSFile::GetApplicationVersions: Unable to get file version "
               "info size\n"));
    }
    return;
  }
  QueryVersion(json, "version", fileVersion);
  QueryVersion(json, "version", productVersion);
}

ACE_CString ApplicationVersion(const ACE_CString& file) {
  ACE_CString fileVersion, productVersion;
  GetApplicationVersions(file, fileVersion, productVersion);
  return productVersion;
}

ACE_CString LastErrorString() {
  char buf[512];
  const char* text = ::strerror_r(errno, buf, sizeof buf);
  std::string s(text);
  std::replace(s.begin(), s.end(), '\n', ' ');
  std::replace(s.begin(), s.end(), '\r', ' ');
  return ACE_CString(s.c_str(), s.size());
}

void DisableThreadPriorityBoost() {
  COM_LOG((LM_DEBUG, "SetThreadPriorityBoost %s\n", "succeeded"));
}

int NumberOfProcessors() {
  long n = ::sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<int>(n) : 1;
}

unsigned long GetThisProcessMemoryUsage() { return 0; }

}  // namespace Kelvane
