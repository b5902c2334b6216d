// Helpers shared by the source files of the file utilities
// (common/os/osfile_*.cpp): errno keeping, stat wrappers and the directory
// enumeration that stands for the find-first/find-next calls. Private to the
// library.
#ifndef COM_COMMON_OS_INTERNAL_OSFILESHARED_H_
#define COM_COMMON_OS_INTERNAL_OSFILESHARED_H_

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/os/internal/osfilerules.h"

namespace Kelvane {
namespace internal {

inline ACE_CString Sub(const ACE_CString& s, size_t from, size_t count) {
  return s.substring(from, count);
}

// Position of the last c in s, or npos.
inline size_t LastOf(const ACE_CString& s, char c) { return s.rfind(c); }

// Restores errno on scope exit, for clean-up calls after a failure.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_;
};

inline void CloseKeepingErrno(int fd) {
  ErrnoKeeper keep;
  ::close(fd);
}

inline bool StatPath(const char* path, struct stat& st) {
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

inline bool IsDotOrDotDot(const char* n) {
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
inline bool StatxAt(int dirFd, const char* name, bool follow,
                    struct statx& stx) {
  unsigned mask = STATX_TYPE | STATX_MODE | STATX_SIZE | STATX_MTIME |
                  STATX_CTIME | STATX_BTIME;
  int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  return ::statx(dirFd, name, flags, mask, &stx) == 0;
}

inline ACE_UINT64 CreationTicks(const struct statx& stx) {
  const struct statx_timestamp& t =
      (stx.stx_mask & STATX_BTIME) ? stx.stx_btime : stx.stx_ctime;
  return FileTimeFromUnix(t.tv_sec, t.tv_nsec);
}

inline ACE_UINT64 ModifiedTicks(const struct statx& stx) {
  return FileTimeFromUnix(stx.stx_mtime.tv_sec, stx.stx_mtime.tv_nsec);
}

inline bool IsReadOnlyMode(mode_t mode) { return (mode & 0222) == 0; }

// The disk of the block device major:minor is fixed when sysfs says it is
// not removable; a partition asks its parent disk. False when sysfs does not
// know the device.
bool IsFixedBlockDevice(unsigned major, unsigned minor);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_OSFILESHARED_H_
