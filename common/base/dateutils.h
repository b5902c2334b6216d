// Calendar arithmetic and DICOM date/time string helpers.
//
// Day numbers count days of the proleptic Gregorian calendar: day 1 is
// 1 January of year 1, 1 January 1970 is 719163, 31 December 9999 is
// 3652059. They are signed 32-bit values (carried in a long).
//
// The string converters append to `out` at its current strlen(), so the
// caller passes a zero-filled buffer; their checks are deliberately lax
// (see each function). The zone offsets are strings of the signed number of
// milliseconds to add to local time to get UTC: "-3600000" at UTC+01:00,
// "18000000" at UTC-05:00, "-19800000" in Asia/Kolkata.
//
//   char out[11] = {0};
//   UtlConvertDICOMString2Date("20240315", out);   // "03/15/2024"
//   utl_ymd_to_scalar(2000, 1, 1);                  // 730120
//
// Thread safety: all functions may be called from any thread; the zone
// functions read TZ (tzset()) and must not race a change of it.
#ifndef COM_COMMON_BASE_DATEUTILS_H_
#define COM_COMMON_BASE_DATEUTILS_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

// 1 for a leap year of the Gregorian calendar, else 0.
COM_EXPORT int utl_isleap(unsigned year);

// Days before `month` as if February had 30 days: (m * 3057 - 3007) / 100
// in unsigned arithmetic (Jan 0, Feb 31, Mar 61, Apr 92, ...). Callers
// apply the leap correction.
COM_EXPORT unsigned utl_months_to_days(unsigned month);

// Days in the years 1..year, wrapping in 32 bits.
COM_EXPORT long utl_years_to_days(unsigned year);

// Day number of year/month/day. Nothing is validated: (2024, 2, 30) gives
// the day number of 1 March 2024.
COM_EXPORT long utl_ymd_to_scalar(unsigned year, unsigned month, unsigned day);

// Year, month and day of a day number of at least 1 (read as 32 bits);
// a day number below 1 gives 0/0/0.
COM_EXPORT void utl_scalar_to_ymd(long scalar, unsigned* year, unsigned* month,
                                  unsigned* day);

// DA "YYYYMMDD" to "MM/DD/YYYY". Any input not exactly 8 characters long
// gives "" (out[0] = 0); the characters are not checked to be digits.
// `out`: zero-filled, at least 11 bytes. Null arguments do nothing.
COM_EXPORT void UtlConvertDICOMString2Date(const char* in, char* out);

// TM "HHMMSS[.F]" to "HH:MM:SS[.F]": in[0..1], ":", in[2..3], ":", then,
// when the input is longer than 4, everything from in[4]. So "143005.25"
// gives "14:30:05.25" and "1430" gives "14:30:" (trailing colon kept).
// Nothing is validated. The input must have at least 4 characters; here a
// shorter one gives "" instead of reading past its end. `out`: zero-filled,
// at least strlen(in) + 3 bytes. Null arguments do nothing.
COM_EXPORT void UtlConvertDICOMString2Time(const char* in, char* out);

// "MM/DD/YYYY" to DA "YYYYMMDD"; non-zero on success, 0 (and out[0] = 0)
// on failure. Needs exactly 10 characters, digits in in[6..9], "/" at
// in[2], a digit at in[1] and at in[4]. A non-digit at in[0] or in[3] is
// skipped, not an error, and in[5] is never looked at: "x1/05/2020" gives
// "2020105" and succeeds. `out`: zero-filled, at least 9 bytes.
COM_EXPORT int UtlConvertString2DICOMDate(const char* in, char* out);

// The offset in force now ("%d" milliseconds, UTC - local), from
// tm_gmtoff rounded to whole minutes; "" (with an error log record) when
// the zone cannot be read.
COM_EXPORT ACE_String_Base<char> GetCurrentTimeZoneOffsetFromUTC();

// The offset in force at a local date and time, given as BDate and BTime
// texts ("20240701", "120000"), by the zone rules at that date: "-7200000"
// for a summer date in Europe/Berlin even in winter. An invalid time counts
// as midnight. A date that does not convert (invalid, or before 1601) logs
// and falls back to GetCurrentTimeZoneOffsetFromUTC(). Repeated and skipped
// local times are read with the offset in force before the change: New
// York's 2024-03-10 023000 and 2024-11-03 013000 both give "18000000" and
// "14400000" respectively.
COM_EXPORT ACE_String_Base<char> GetCurrentTimeZoneOffsetFromDate(
    ACE_String_Base<char> date, ACE_String_Base<char> time);

#endif  // COM_COMMON_BASE_DATEUTILS_H_
