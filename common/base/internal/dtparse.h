// Helpers shared by the DT unit and the range matchers: a bounded DT
// reader and the instants of a value on a microsecond scale.
//
// Thread safety: pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_DTPARSE_H_
#define COM_COMMON_BASE_INTERNAL_DTPARSE_H_

#include <cstdint>

#include "common/base/dtvalue.h"

namespace Kelvane {
namespace dtparse {

constexpr int64_t kMicrosPerSecond = 1000000;
constexpr int64_t kMicrosPerDay = 86400 * kMicrosPerSecond;

// ParseDT over [begin, end): the range stands for a terminated text of
// exactly those characters.
bool ParseDT(const char* begin, const char* end, DTValue& out);

// Microseconds since 1970-01-01 00:00 of the value's fields read as UTC,
// offset not applied. A leap second adds one second to second 59.
int64_t WallMicros(const DTValue& v);

// The last microsecond of the period the value names at its precision:
// "2024" ends at 2024-12-31 23:59:59.999999, "20240315143005.5" at
// 14:30:05.599999. Offset not applied.
int64_t WallMicrosEnd(const DTValue& v);

}  // namespace dtparse
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_DTPARSE_H_
