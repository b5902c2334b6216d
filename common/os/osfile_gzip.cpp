#include "common/os/osfile.h"

// gzip compression of a file beside it.

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zlib.h>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/os/internal/osfilerules.h"
#include "common/os/internal/osfileshared.h"

namespace Kelvane {

using internal::CloseKeepingErrno;
using internal::ErrnoKeeper;

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

}  // namespace Kelvane
