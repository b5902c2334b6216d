// The async-signal-safe formatting of the crash report: a fixed buffer
// written with plain stores, no allocation and no locale.
//
// Thread safety: a Writer belongs to one thread; the functions are pure.
#ifndef COM_COMMON_OS_INTERNAL_CRASHREPORTRULES_H_
#define COM_COMMON_OS_INTERNAL_CRASHREPORTRULES_H_

#include <cstddef>
#include <cstdint>

#include "common/base/comexport.h"

namespace CrashReportRules {

// Text gathered in a fixed buffer; what does not fit is cut off.
class COM_EXPORT Writer {
 public:
  Writer(char* buffer, size_t capacity);
  Writer& Text(const char* s);
  Writer& Dec(uint64_t v);
  // "0x" and lower-case hex digits, no padding.
  Writer& Hex(uint64_t v);
  // Zero-padded to `width` digits.
  Writer& Pad(uint64_t v, unsigned width);
  const char* data() const { return buffer_; }
  size_t size() const { return size_; }
  void Clear();

 private:
  char* buffer_;
  size_t capacity_;
  size_t size_;
};

// "SIGSEGV" and the like for the handled signals, "signal" otherwise.
COM_EXPORT const char* SignalName(int sig);

// A UTC calendar time from seconds since 1970 (proleptic Gregorian).
struct UtcTime {
  int64_t year;
  unsigned month, day, hour, minute, second;
};
COM_EXPORT UtcTime ToUtc(int64_t secondsSinceEpoch);

}  // namespace CrashReportRules

#endif  // COM_COMMON_OS_INTERNAL_CRASHREPORTRULES_H_
