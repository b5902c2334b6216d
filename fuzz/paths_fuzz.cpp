// The path helpers over arbitrary bytes: the first byte picks the flags,
// the rest is split at the first NUL into a directory and a name.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "common/os/osfile.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t flags = data[0];
  std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  size_t nul = rest.find('\0');
  std::string first = rest.substr(0, nul);
  std::string second = nul == std::string::npos ? "" : rest.substr(nul + 1);
  second = second.substr(0, second.find('\0'));
  ACE_CString path(first.c_str(), first.size());

  ACE_CString n = Kelvane::normalizePath(path, flags & 1);
  Check(n.length() >= path.length() && n.length() <= path.length() + 1);
  Check(std::strchr(n.c_str(), '\\') == nullptr);

  ACE_CString last = Kelvane::getLastPathElement(path);
  Check(last.length() <= path.length());
  Check(std::strchr(last.c_str(), '/') == nullptr);
  Check(Kelvane::getAllButLastPathElement(path).length() <= path.length());
  ACE_CString drive = Kelvane::getDriveElement(path);
  ACE_CString rest2 = Kelvane::getAllButDriveElement(path);
  Check(drive.length() <= path.length() && rest2.length() <= path.length());
  Check(Kelvane::getFileX(path).length() <= path.length());
  Check(Kelvane::fileNameRemoveX(path).length() <= path.length());

  ACE_CString p = path, name("unchanged");
  if (Kelvane::splitPath(p, name) == 0) {
    Check(p.length() + name.length() + 1 == path.length());
  } else {
    Check(p == path && name == "unchanged");
  }

  std::list<ACE_CString> parts;
  Kelvane::PathToList(first.c_str(), parts);
  size_t total = 0;
  for (const ACE_CString& part : parts) {
    Check(part.length() > 0);
    total += part.length();
  }
  Check(total <= first.size());

  ACE_CString joined("x");
  if (!first.empty()) {
    Kelvane::concatPath(joined, first.c_str(),
                        (flags & 2) ? second.c_str() : nullptr);
  } else {
    Kelvane::concatPath(joined, nullptr,
                        (flags & 2) ? second.c_str() : nullptr);
  }
  // A null directory joins the name to itself ("x" gives "x/x").
  Check(joined.length() <= first.size() + 2 * second.size() + 1);

  ACE_UINT64 ft = 0;
  std::memcpy(&ft, data, size < sizeof ft ? size : sizeof ft);
  Check(Kelvane::FileTimeToString(ft).length() >= 19);
  return 0;
}
