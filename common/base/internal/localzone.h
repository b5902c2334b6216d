// Local time zone rules for the date units, read from the C library's zone
// database for the TZ in force (localtime_r and tm_gmtoff).
//
// Every query calls tzset() first, so a change of TZ made with setenv()
// takes effect at the next conversion.
//
// Records follow the platform date-time record used by the file-time
// functions: year 1601..30827, month 1..12, a day that exists in that
// month, hour < 24, minute < 60, second < 60, millisecond < 1000. A
// conversion whose input or output leaves that range fails.
//
// Local wall times that occur twice or never (daylight-saving changes) are
// resolved by ResolveLocal():
//   - a repeated time (clocks go back) is read with the offset in force
//     before the change, i.e. its first occurrence: in America/New_York,
//     2024-11-03 01:30 is 05:30 UTC (EDT), not 06:30 UTC;
//   - a skipped time (clocks go forward) is also read with the offset in
//     force before the change, which lands after the gap: in
//     America/New_York, 2024-03-10 02:30 is 07:30 UTC, i.e. 03:30 EDT.
//
// Thread safety: the functions may be called from any thread; changing TZ
// while another thread converts is the caller's race, as with localtime().
#ifndef COM_COMMON_BASE_INTERNAL_LOCALZONE_H_
#define COM_COMMON_BASE_INTERNAL_LOCALZONE_H_

#include <cstdint>

#include "common/base/comexport.h"

class BDate;
class BTime;

namespace Kelvane {
namespace localzone {

struct Record {
  int32_t year;
  int32_t month;
  int32_t day;
  int32_t hour;
  int32_t minute;
  int32_t second;
  int32_t millisecond;
};

// The fields of a date and a time of day, unchecked (an invalid date reads
// as 0/0/0).
Record MakeRecord(const BDate& date, const BTime& time);

// True when `r` lies in the record range described above.
COM_EXPORT bool IsValidRecord(const Record& r);

// Seconds since 1970-01-01 00:00 of the record's fields read as UTC (the
// millisecond is not included). No validation.
COM_EXPORT int64_t RecordToSeconds(const Record& r);

// The UTC instant of the local wall time `local` (seconds of the local
// fields read as UTC), given offsetAt(utc, offset) that yields the zone's
// offset east of UTC in seconds at a UTC instant and returns false on
// failure. Picks the offset in force before a change for repeated and for
// skipped times. Kept free of OS calls so the rule can be tried with any
// offset function.
template <class OffsetFn>
bool ResolveLocal(int64_t local, OffsetFn offsetAt, int64_t& utc) {
  int32_t before = 0;
  int32_t after = 0;
  int32_t found = 0;
  if (!offsetAt(local - 86400, before)) return false;
  int64_t const first = local - before;
  if (!offsetAt(first, found)) return false;
  if (found == before) {
    utc = first;
    return true;
  }
  if (!offsetAt(local + 86400, after)) return false;
  int64_t const second = local - after;
  if (after != before) {
    if (!offsetAt(second, found)) return false;
    if (found == after) {
      utc = second;
      return true;
    }
  }
  // In a gap neither offset fits: keep the one from before the change.
  utc = first;
  return true;
}

// The zone's offset east of UTC, in seconds, at the UTC instant `utc`.
COM_EXPORT bool OffsetAt(int64_t utc, int32_t& offset);

// The bias in force now, in minutes: UTC = local + bias (so -60 at
// UTC+01:00), i.e. -tm_gmtoff / 60.
COM_EXPORT bool CurrentBiasMinutes(int32_t& minutes);

// Local wall time to UTC, and UTC to local wall time, by the zone rules in
// force at that date. Fail (errno EINVAL or EOVERFLOW) when the input or
// the result is not a valid record.
COM_EXPORT bool LocalToUtc(const Record& local, Record& utc);
COM_EXPORT bool UtcToLocal(const Record& utc, Record& local);

// The UTC instant `seconds` (since 1970) as a local record with the given
// millisecond; false when the C library cannot convert it. The result is
// not range-checked.
COM_EXPORT bool SecondsToLocal(int64_t seconds, int32_t millisecond,
                               Record& local);

}  // namespace localzone
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_LOCALZONE_H_
