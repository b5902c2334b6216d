#include "common/os/osfile.h"

// Drives and versions: drive space and the drive list, the executable's
// path, the installation settings, package versions of binaries and the
// small system queries.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/base/comlog.h"
#include "common/os/configstore.h"
#include "common/os/internal/osfilerules.h"
#include "common/os/internal/osfileshared.h"
#include "common/os/internal/packagenote.h"

namespace Kelvane {

using internal::LastOf;
using internal::Sub;

// ================================================================ pure rules

namespace internal {

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

namespace internal {

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

}  // namespace internal

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
    if (!internal::IsFixedBlockDevice(m.major, m.minor)) continue;
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
