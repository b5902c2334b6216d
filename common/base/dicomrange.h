// Range matching of DICOM dates (DA), times (TM) and date-times (DT) as a
// C-FIND query matches a key against a stored value.
//
// A range is "A-B" (A through B inclusive), "-B" (everything up to and
// including B), "A-" (A and everything after) or a single value A. A bound
// with partial precision covers its whole period: the range "2024-202403"
// runs from 2024-01-01 through 2024-03-31, "-14" takes every time up to
// 14:59:59.999999, and the single value "1430" matches 14:30:00 through
// 14:30:59.999999. A stored value is the instant it starts at ("1430" is
// 14:30:00).
//
// Accepted texts:
//   DA  YYYYMMDD, and YYYYMM or YYYY as partial dates;
//   TM  HH, HHMM, HHMMSS, HHMMSS.F to HHMMSS.FFFFFF (second 60 allowed);
//   DT  every form Kelvane::ParseDT accepts, offsets included.
// Spaces around the whole text and around the "-" are ignored (stored
// values arrive padded to even length). A malformed range or value, and a
// text that is only "-", match nothing; an empty range (universal
// matching) matches every value, even an empty one.
//
// TM ranges compare times within one day: "-B" runs from midnight, "A-" up
// to midnight, and a range never crosses midnight, so "2300-0100" (A later
// than B) matches nothing, like every other range whose start lies after
// its end.
//
// DT offsets: two instants that both carry an offset, or both lack one,
// are compared directly (UTC, or local wall time). When only one of them
// carries an offset the other is read as local time by the zone rules of
// its own date, as Kelvane::DTToUTC does. A "-" that may start an offset
// or separate the range is read as the offset of the left side when that
// gives a valid text: "20240101-0500" is one value at UTC-5, and
// "20240101-0500-20240102" is the range from it to 2024-01-02.
//
// Thread safety: pure functions, except that a DT comparison between a
// value with an offset and one without reads the local zone (TZ).
//
//   Kelvane::MatchDARange("20240101-20240131", "20240115");  // true
//   Kelvane::MatchTMRange("-12", "125959");                  // true
//   Kelvane::MatchDTRange("20240101120000+0100-", "20240101113000+0000");
//                                                            // true
#ifndef COM_COMMON_BASE_DICOMRANGE_H_
#define COM_COMMON_BASE_DICOMRANGE_H_

#include "common/base/comexport.h"

namespace Kelvane {

// True when the stored date `value` lies in `range`. Null pointers match
// nothing.
COM_EXPORT bool MatchDARange(const char* range, const char* value);

// True when the stored time `value` lies in `range`.
COM_EXPORT bool MatchTMRange(const char* range, const char* value);

// True when the stored date-time `value` lies in `range`.
COM_EXPORT bool MatchDTRange(const char* range, const char* value);

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_DICOMRANGE_H_
