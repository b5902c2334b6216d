#include "common/os/osfile.h"

// Directory walks: creating and deleting folder trees, sizes and counts,
// subfolders and the file listings.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/base/comlog.h"
#include "common/os/internal/osfilerules.h"
#include "common/os/internal/osfileshared.h"

namespace Kelvane {

using internal::CreationTicks;
using internal::Entry;
using internal::Enumeration;
using internal::IsDotOrDotDot;
using internal::IsReadOnlyMode;
using internal::Kind;
using internal::LastOf;
using internal::ModifiedTicks;
using internal::StatxAt;
using internal::Sub;

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

}  // namespace internal

namespace {

// The path with trailing '/' removed (a lone "/" stays), so that lstat sees
// a link as a link.
std::string WithoutTrailingSlashes(const ACE_CString& path) {
  std::string p(path.c_str(), path.length());
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

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

}  // namespace Kelvane
