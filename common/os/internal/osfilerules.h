// Rules of the file-system utilities that need no system call, kept apart so
// that tests can feed them made-up inputs.
#ifndef COM_COMMON_OS_INTERNAL_OSFILERULES_H_
#define COM_COMMON_OS_INTERNAL_OSFILERULES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// Bytes read and compressed per step by CompressFile2.
constexpr size_t kCompressChunk = 0x80000;

// Seconds from 1601-01-01 to 1970-01-01.
constexpr int64_t kFileTimeEpochOffset = 11644473600LL;

// A directory-listing pattern against one name: case-insensitive, '*' any
// run, '?' one character, and a trailing ".*" also matches a name without
// a dot, so "*.*" matches every name and "dir*.*" matches "dir" and "dir1".
COM_EXPORT bool MatchesFindPattern(const char* name, const char* pattern);

// 100-ns ticks since 1601-01-01 UTC of a Unix time; times before 1601 give 0.
COM_EXPORT uint64_t FileTimeFromUnix(int64_t seconds, uint32_t nanoseconds);
// The Unix time of a file time (seconds, nanoseconds).
COM_EXPORT std::pair<int64_t, uint32_t> UnixFromFileTime(uint64_t fileTime);

// The listing's suffix rule: "*" matches; otherwise the last strlen(suffix)
// characters of `full` equal `suffix` without regard to case. A `full`
// shorter than `suffix` never matches.
COM_EXPORT bool SuffixMatches(const char* full, size_t fullLength,
                              const char* suffix, size_t suffixLength);

// `size` raised to the next whole number of clusters; 0 when cluster is 0.
COM_EXPORT uint64_t RoundUpToClusters(uint64_t size, uint64_t cluster);

// One mount of /proc/self/mountinfo.
struct MountEntry {
  unsigned major = 0;
  unsigned minor = 0;
  std::string mountPoint;  // octal escapes (\040 and so on) decoded
  std::string fsType;
  std::string source;
};

// Parses one line of /proc/self/mountinfo; false when it is malformed.
COM_EXPORT bool ParseMountInfoLine(const std::string& line, MountEntry& out);

// The drive roots of (root, capacity) pairs, in order of appearance, kept
// one per capacity (a later root replaces an earlier one of the same
// capacity) and returned largest capacity first.
COM_EXPORT std::vector<std::string> SelectDrivesByCapacity(
    const std::vector<std::pair<std::string, uint64_t>>& roots);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_OSFILERULES_H_
