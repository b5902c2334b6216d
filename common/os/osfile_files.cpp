#include "common/os/osfile.h"

// Single files: tests, copies, links, sizes, deletion, touching and the
// two attributes.

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/base/comlog.h"
#include "common/os/internal/osfileshared.h"

namespace Kelvane {

using internal::CloseKeepingErrno;
using internal::ErrnoKeeper;
using internal::IsReadOnlyMode;
using internal::StatPath;

namespace {

const char kArchiveAttribute[] = "user.kelvane.archive";

}  // namespace

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

}  // namespace Kelvane
