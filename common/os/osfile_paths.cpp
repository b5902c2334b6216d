#include "common/os/osfile.h"

// Path strings: pure text rules, no system call.

#include <algorithm>
#include <string>

// Every source file of the file utilities logs under the one unit name
// "common/os/osfile", so that log records keep naming the unit callers know
// whichever file a function lives in.
#undef COM_UNIT
#define COM_UNIT "common/os/osfile"

#include "common/os/internal/osfileshared.h"

namespace Kelvane {

using internal::LastOf;
using internal::Sub;

namespace {

size_t FirstSeparator(const ACE_CString& s) {
  const char* p = s.c_str();
  for (size_t i = 0; i < s.length(); ++i) {
    if (p[i] == '/' || p[i] == '\\') return i;
  }
  return ACE_CString::npos;
}

}  // namespace

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

}  // namespace Kelvane
