#include "common/os/osinfo.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <sys/utsname.h>
#include <vector>

#include "common/base/comlog.h"
#include "common/os/internal/osinforules.h"

namespace OSInfoRules {

namespace {

// The leading numbers of a version; false when it does not start with one.
bool Numbers(const char* text, std::vector<uint32_t>& out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  const char* p = text;
  for (;;) {
    uint64_t n = 0;
    if (*p < '0' || *p > '9') break;
    while (*p >= '0' && *p <= '9') {
      n = n * 10 + static_cast<unsigned>(*p - '0');
      if (n > 0xFFFFFFFFu) return false;
      ++p;
    }
    out.push_back(static_cast<uint32_t>(n));
    // "6.1" goes on, "6.1-rc2" and "6.1." stop after "6.1".
    if (*p != '.' || p[1] < '0' || p[1] > '9') break;
    ++p;
  }
  return true;
}

}  // namespace

int CompareVersions(const char* actual, const char* wanted) {
  std::vector<uint32_t> a, w;
  if (!Numbers(actual, a) || !Numbers(wanted, w)) return kNotComparable;
  for (size_t i = 0; i < w.size(); ++i) {
    const uint32_t have = i < a.size() ? a[i] : 0;
    if (have != w[i]) return have < w[i] ? -1 : 1;
  }
  return 0;
}

std::string OsReleaseValue(const std::string& text, const char* key) {
  std::istringstream in(text);
  std::string line;
  const std::string prefix = std::string(key) + "=";
  std::string found;
  while (std::getline(in, line)) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    std::string v = line.substr(prefix.size());
    while (!v.empty() &&
           (v.back() == ' ' || v.back() == '\t' || v.back() == '\r'))
      v.pop_back();
    // Single quotes keep everything; otherwise a backslash escapes the
    // next character, as in a shell.
    if (v.size() >= 2 && v.front() == '\'' && v.back() == '\'') {
      v = v.substr(1, v.size() - 2);
    } else {
      if (v.size() >= 2 && v.front() == '"' && v.back() == '"')
        v = v.substr(1, v.size() - 2);
      std::string plain;
      for (size_t i = 0; i < v.size(); ++i) {
        if (v[i] == '\\' && i + 1 < v.size()) ++i;
        plain += v[i];
      }
      v = plain;
    }
    found = v;  // the last assignment wins, as in a shell
  }
  return found;
}

}  // namespace OSInfoRules

namespace {

std::string ReadOsRelease() {
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  }
  return std::string();
}

}  // namespace

OSVERSIONRECORD OSInfo::GetOSInfoEx() {
  static std::mutex lock;
  static OSVERSIONRECORD record;
  std::lock_guard<std::mutex> guard(lock);
  record = OSVERSIONRECORD();
  struct utsname u;
  if (::uname(&u) == 0) {
    record.sysName = u.sysname;
    record.release = u.release;
    record.kernelBuild = u.version;
    record.machine = u.machine;
    unsigned n[3] = {0, 0, 0};
    const char* p = u.release;
    for (int i = 0; i < 3 && *p >= '0' && *p <= '9'; ++i) {
      char* end = nullptr;
      n[i] = static_cast<unsigned>(std::strtoul(p, &end, 10));
      if (*end != '.') break;
      p = end + 1;
    }
    record.dwMajorVersion = n[0];
    record.dwMinorVersion = n[1];
    record.dwBuildNumber = n[2];
  } else {
    COM_LOG((LM_ERROR, "OSInfo::GetOSInfoEx: uname() failed. OS Error: %m\n"));
  }
  const std::string text = ReadOsRelease();
  record.osReleaseText = ACE_CString(text.c_str(), text.size());
  record.distributionId = OSInfoRules::OsReleaseValue(text, "ID").c_str();
  record.distributionVersion =
      OSInfoRules::OsReleaseValue(text, "VERSION_ID").c_str();
  record.prettyName = OSInfoRules::OsReleaseValue(text, "PRETTY_NAME").c_str();
  return record;
}

namespace SystemUtilCommon {

OsVersionInfo::OsVersionInfo() {
  const OSVERSIONRECORD r = OSInfo::GetOSInfoEx();
  kernel_ = r.release;
  distribution_ = r.distributionVersion;
}

OsVersionInfo::OsVersionInfo(const char* kernelRelease,
                             const char* distributionVersion)
    : kernel_(kernelRelease ? kernelRelease : ""),
      distribution_(distributionVersion ? distributionVersion : "") {}

bool OsVersionInfo::IsKernelEqual(const char* version) const {
  return OSInfoRules::CompareVersions(kernel_.c_str(), version) == 0;
}
bool OsVersionInfo::IsKernelAtLeast(const char* version) const {
  const int c = OSInfoRules::CompareVersions(kernel_.c_str(), version);
  return c == 0 || c == 1;
}
bool OsVersionInfo::IsKernelBelow(const char* version) const {
  return OSInfoRules::CompareVersions(kernel_.c_str(), version) == -1;
}
bool OsVersionInfo::IsDistributionEqual(const char* version) const {
  return OSInfoRules::CompareVersions(distribution_.c_str(), version) == 0;
}
bool OsVersionInfo::IsDistributionAtLeast(const char* version) const {
  const int c = OSInfoRules::CompareVersions(distribution_.c_str(), version);
  return c == 0 || c == 1;
}
bool OsVersionInfo::IsDistributionBelow(const char* version) const {
  return OSInfoRules::CompareVersions(distribution_.c_str(), version) == -1;
}

}  // namespace SystemUtilCommon
