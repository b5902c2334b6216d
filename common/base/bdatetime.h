// BDateTime: a BDate and a BTime as one value. It reads combined date-time
// texts (a DICOM date and time separated by a space, ISO-like text with a
// "T", US text), prints a US display form, compares, shifts by a time of
// day and converts between local time and UTC with the zone rules of the
// TZ in force (see common/base/internal/localzone.h for how times in a
// skipped or repeated daylight-saving hour are read).
//
// Nothing throws. The default value (invalid date, time -1) is invalid;
// IsValid() needs both parts valid, so a date-only text is not a valid
// date-time.
//
//   BDateTime dt("20240315 143005.25");
//   dt.ToString();                   // "03/15/2024 14:30:05.0250"
//   dt.LocalTimeToGMT();             // in Europe/Berlin: 13:30:05.250
//
// Thread safety: a value type; distinct objects may be used from any thread.
// The zone conversions read TZ (tzset()) and must not race a change of it.
#ifndef COM_COMMON_BASE_BDATETIME_H_
#define COM_COMMON_BASE_BDATETIME_H_

#include <iosfwd>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/bdate.h"
#include "common/base/btime.h"
#include "common/base/comexport.h"

class COM_EXPORT BDateTime {
 public:
  // Invalid date, time -1 with precision Millisecond.
  BDateTime();
  BDateTime(const BDateTime& other);
  BDateTime(BDate date, BTime time);
  // BDate(seconds) and BTime(seconds): the local date and time of day of an
  // instant in seconds since 1970-01-01 UTC.
  BDateTime(ACE_INT64 seconds);
  // Parses "<date> <time>" or "<date>T<time>" with any date form of BDate
  // and any time form of BTime: "20240315 143005.25",
  // "2024-03-15T14:30:05", "03/15/2024 14:30".
  //   - leading and trailing spaces are dropped;
  //   - when the text starts and ends with an apostrophe only the first one
  //     is dropped: "'20240315 1430'" parses (the time ignores the closing
  //     apostrophe) while "'20240315'" does not (the date part is then
  //     nine characters long);
  //   - the split is at the first space, else at the first "T";
  //   - an invalid date leaves the time invalid too; a date alone gives a
  //     valid date with an invalid time.
  // DICOM DT without a separator ("20240315143005") is invalid. A zone
  // suffix ("+0100") is ignored, but a "." anywhere after the time starts
  // its fraction. A null pointer gives the default value.
  BDateTime(const char* text);

  BDateTime& operator=(const BDateTime& other);

  // The current local date and time; the time is read first and the date
  // second, by two separate clock readings.
  static BDateTime Now();

  const BDate& GetDate() const;
  const BTime& GetTime() const;

  bool IsValid() const;

  // Dates equal and time milliseconds equal (precision ignored).
  bool operator==(const BDateTime& other) const;
  // By date, then by time milliseconds.
  bool operator<(const BDateTime& other) const;
  bool operator>(const BDateTime& other) const;
  bool operator<=(const BDateTime& other) const;
  bool operator>=(const BDateTime& other) const;

  // BTimeSpan(day number, time ms) of this minus that of `other`, with the
  // saturating subtraction of BTimeSpan: an earlier value minus a later one
  // gives 0 days 0 ms.
  BTimeSpan operator-(const BDateTime& other) const;
  // The two spans added (no calendar meaning; kept for existing callers).
  BTimeSpan operator+(const BDateTime& other) const;

  // Adds a time of day: the time becomes (time + t) mod 24 h with precision
  // Millisecond and the date moves on by the whole days carried.
  BDateTime& operator+=(const BTime& t);
  // Subtracts a time of day. When `t` exceeds the time, the date goes back
  // (and is validated again) and the time wraps from the end of the day;
  // the precision is left as it was. 00:00:00 minus one hour is 23:00:00 of
  // the day before.
  BDateTime& operator-=(const BTime& t);

  // The bias in force now, in minutes (UTC = local + bias; -60 in a zone at
  // UTC+01:00), from tm_gmtoff. False, with a log record, when the zone
  // cannot be read.
  static bool GetTimeZoneBias(long& minutes);

  // Local to UTC by the zone rules in force at this value's date. An
  // invalid value, or one the platform record cannot hold (years before
  // 1601), comes back unchanged. The result has precision Millisecond.
  BDateTime LocalTimeToGMT() const;
  // UTC to local by the zone rules in force at this value's date. An
  // invalid value comes back unchanged; a failed conversion (years before
  // 1601, or a result outside the record range) gives the default, invalid
  // value.
  BDateTime ToLocal() const;
  // Local to UTC by the bias in force now, whatever the value's date; the
  // default value when the bias cannot be read.
  BDateTime ToUTC() const;

  // "%02d/%02d/%02d %02d:%02d:%02d.%04d" of month, day, year, hour, minute,
  // second, millisecond: the millisecond takes four digits on purpose,
  // "03/15/2024 14:30:05.0123".
  ACE_CString ToString() const;
  // "%02d/%02d/%02d %02d:%02d:%02d" into `out`, which holds 20 bytes.
  void ToString(char* out) const;

 private:
  BDate date_;
  BTime time_;
};

// Writes the ToString(char*) text.
COM_EXPORT std::ostream& operator<<(std::ostream& out, const BDateTime& dt);

#endif  // COM_COMMON_BASE_BDATETIME_H_
