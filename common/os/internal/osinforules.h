// The pure parts of OSInfo: version comparison and os-release values.
//
// Thread safety: pure functions, callable from any thread.
#ifndef COM_COMMON_OS_INTERNAL_OSINFORULES_H_
#define COM_COMMON_OS_INTERNAL_OSINFORULES_H_

#include <string>

#include "common/base/comexport.h"

namespace OSInfoRules {

constexpr int kNotComparable = -2;

// Compares the leading dot-separated numbers of `actual` with those of
// `wanted`, over as many numbers as `wanted` has (a number `actual` lacks
// counts as 0): -1 below, 0 equal, 1 above; kNotComparable when either
// (or null) does not start with a digit, or a number overflows 32 bits.
COM_EXPORT int CompareVersions(const char* actual, const char* wanted);

// The value of `key` in os-release text, unquoted ("" when absent).
COM_EXPORT std::string OsReleaseValue(const std::string& text, const char* key);

}  // namespace OSInfoRules

#endif  // COM_COMMON_OS_INTERNAL_OSINFORULES_H_
