#include "common/base/stackutils.h"

#include <cstdint>
#include <cstdio>

#include "common/os/osfile.h"

const unsigned long StackUtils::kStackFolderCount;

unsigned long StackUtils::pjwHash(const ACE_CString& text) {
  // Existing storage was laid out by a 32-bit computation: wrap there.
  uint32_t h = 0;
  const char* s = text.c_str();
  for (size_t i = text.length(); i-- > 0;) {
    const int32_t c = static_cast<signed char>(s[i]);
    h = (h << 4) + static_cast<uint32_t>(c * 13);
    const uint32_t g = h & 0xF0000000u;
    if (g != 0) h = h ^ (g >> 24) ^ g;
  }
  return h;
}

namespace {

ACE_CString BucketName(unsigned long bucket) {
  char name[24];
  std::snprintf(name, sizeof name, "%04lu", bucket);
  return ACE_CString(name);
}

}  // namespace

ACE_CString StackUtils::suidToStackFolder(const ACE_CString& suid) {
  return BucketName(pjwHash(suid) % kStackFolderCount);
}

ACE_CString StackUtils::generateStudyPath(const ACE_CString& root,
                                          const ACE_CString& suid) {
  ACE_CString path = Kelvane::normalizePath(root, true);
  path += suidToStackFolder(suid);
  path += "/";
  path += suid;
  return path;
}

void StackUtils::getStackHashFolders(std::vector<ACE_CString>& out) {
  out.reserve(out.size() + kStackFolderCount);
  for (unsigned long i = 0; i < kStackFolderCount; ++i) {
    out.push_back(BucketName(i));
  }
}

ACE_CString StackUtils::extractStackPath(const ACE_CString& path) {
  const size_t length = path.length();
  const char* s = path.c_str();
  static const char kStack[] = "stack";
  for (size_t p = 0; p + 5 <= length; ++p) {
    size_t k = 0;
    while (k < 5) {
      char c = s[p + k];
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      if (c != kStack[k]) break;
      ++k;
    }
    if (k == 5) {
      // Only the first "stack" counts; it needs something after it.
      if (p + 5 <= length - 1) return path.substring(0, p + 5);
      return path;
    }
  }
  return path;
}

bool StackUtils::createStudyPathFolder(const ACE_CString& studyPath) {
  return Kelvane::CreateDirectoryRecursive(
             Kelvane::getAllButLastPathElement(studyPath)) == 0;
}

ACE_CString StackUtils::getMetaFilePath(const ACE_CString& studyPath) {
  return studyPath + ".dts";
}
