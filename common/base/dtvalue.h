// DICOM DT (date-time) values: the text "YYYYMMDDHHMMSS.FFFFFF&ZZXX" cut
// anywhere after the year, with an optional UTC offset.
//
// A DTValue keeps how far the text went (Precision) so that FormatDT writes
// back exactly the text ParseDT read: "2024" stays "2024", "20240315143005.5"
// keeps its one fraction digit, "2024+0100" keeps its offset. Fields the
// text leaves out read as the start of the period it names (month 1, day 1,
// zero time), as DICOM queries and pydicom read them.
//
// Accepted forms: YYYY, YYYYMM, YYYYMMDD, YYYYMMDDHH, YYYYMMDDHHMM,
// YYYYMMDDHHMMSS and YYYYMMDDHHMMSS. followed by 1 to 6 fraction digits,
// each optionally followed by "+ZZXX" or "-ZZXX". Year 0001..9999, a month
// day that exists in that year, hour 00..23, minute 00..59, second 00..60
// (60 is the leap second), offset from -1200 to +1400 with minutes 00..59.
// Anything else (spaces, padding, a trailing newline, a "." without
// digits, more than 6 fraction digits) is rejected.
//
// Thread safety: plain values and pure functions, except DTToUTC of a
// value without offset, which reads the local zone (TZ) as BDateTime's
// conversions do.
//
//   Kelvane::DTValue v;
//   Kelvane::ParseDT("20240315143005.25-0500", v);  // true
//   Kelvane::FormatDT(v);                           // the same text
//   Kelvane::DTToUTC(v);                            // 2024-03-15 19:30:05.250
#ifndef COM_COMMON_BASE_DTVALUE_H_
#define COM_COMMON_BASE_DTVALUE_H_

#include <ace/SString.h>

#include "common/base/bdatetime.h"
#include "common/base/comexport.h"

namespace Kelvane {

struct COM_EXPORT DTValue {
  // The finest field the text gave. Fraction1..Fraction6 count the
  // fraction digits; Fraction6 is the microsecond.
  enum Precision {
    Year = 0,
    Month,
    Day,
    Hour,
    Minute,
    Second,
    Fraction1,
    Fraction2,
    Fraction3,
    Fraction4,
    Fraction5,
    Fraction6
  };

  unsigned short year = 0;  // 0 only in the default (invalid) value
  unsigned char month = 1;
  unsigned char day = 1;
  unsigned char hour = 0;
  unsigned char minute = 0;
  unsigned char second = 0;      // 0..60
  unsigned int microsecond = 0;  // 0..999999
  Precision precision = Year;
  bool hasOffset = false;
  short offsetMinutes = 0;  // east of UTC: "+0130" is 90, "-0500" is -300
  // The sign as written, so that "-0000" prints back as "-0000".
  char offsetSign = '+';

  // True for anything ParseDT produced; false for the default value.
  bool IsValid() const;
  // Field-wise equality, precision and offset included ("2024" and
  // "20240101" differ).
  bool operator==(const DTValue& other) const;
  bool operator!=(const DTValue& other) const { return !(*this == other); }
};

// Reads a DT text (see above). On success stores the value in `out` and
// returns true; on failure returns false and leaves `out` untouched. A null
// pointer is rejected.
COM_EXPORT bool ParseDT(const char* text, DTValue& out);

// The DT text of `value` at its own precision, with its offset when it has
// one: FormatDT of ParseDT(t) is t for every accepted t. An invalid value
// gives an empty string.
COM_EXPORT ACE_CString FormatDT(const DTValue& value);

// The UTC date and time of `value` with millisecond precision (finer
// fraction digits are cut). With an offset the offset is taken off
// ("20240315010000+0200" is 2024-03-14 23:00:00). Without one the value is
// local time and is converted by the zone rules in force at its own date
// (daylight saving of that date, not of today), a repeated or skipped local
// hour read as BDateTime::LocalTimeToGMT reads it. A leap second counts as
// the first instant of the next minute. Fields left out read as the start
// of the period. The default BDateTime (invalid) when `value` is invalid or
// the result lies outside BDate's years 1000..9999.
COM_EXPORT BDateTime DTToUTC(const DTValue& value);

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_DTVALUE_H_
