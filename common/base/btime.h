// BTime: a time of day in milliseconds since midnight that remembers how
// precisely it was given (hour, minute, second or millisecond), so a DICOM
// TM value such as "14" or "1430" prints back as it came. BTimeSpan: a
// duration of days and milliseconds that never goes below zero.
//
// Neither type throws. An invalid BTime holds 0xFFFFFFFF ("-1"), which
// IsValid() rejects and the getters read as 00:00:00.000.
//
//   BTime t("143005.25");            // 14:30:05.250, precision Millisecond
//   t.AsDICOMString();               // "143005.250"
//   BTime("14").AsString(BTime::Second, true);   // "14:--:--"
//   BTimeSpan(0, 1000) - BTimeSpan(0, 2000);     // 0 days 0 ms, not negative
//
// Thread safety: value types; distinct objects may be used from any thread.
#ifndef COM_COMMON_BASE_BTIME_H_
#define COM_COMMON_BASE_BTIME_H_

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

class BDateTime;
class BTimeSpan;

class COM_EXPORT BTime {
 public:
  // The finest field a value was given with; finer fields are zero.
  // A fixed underlying type, so that any int converts to it and the
  // functions taking a Precision can reject values outside the four.
  enum Precision : int { Hour = 0, Minute = 1, Second = 2, Millisecond = 3 };

  // Every constructor stores -1 instead of a value that is not below
  // 86400000, and keeps the precision it set.

  // -1, Millisecond.
  BTime();
  // Both fields; an invalid value is copied as -1.
  BTime(const BTime& other);
  // ((hour * 60 + minute) * 60 + second) * 1000, Second.
  BTime(int hour, int minute, int second);
  // ms, Millisecond.
  BTime(unsigned int ms);
  // The local time of day of an instant in seconds since 1970-01-01 UTC
  // (localtime_r in the TZ in force), Second; -1 if it cannot be converted.
  BTime(ACE_INT64 seconds);
  // DICOM TM ("14", "1430", "143005", "143005.123456") or "HH:MM:SS":
  //   - leading spaces are skipped; fewer than 2 characters left is invalid;
  //   - with a ":" in the text the fields are read with sscanf
  //     "%02d:%02d:%02d", else "%02d%02d%02d"; one field read gives
  //     precision Hour, two Minute, three Second, none is invalid;
  //   - hour > 23, minute > 59 or second > 59 is invalid (the precision
  //     stays as read: "2400" is invalid with precision Minute);
  //   - a "." anywhere in the text starts a fraction of a second, read as a
  //     C-locale floating-point number and truncated to milliseconds
  //     (".5" is 500 ms, ".123456" 123 ms); it sets precision Millisecond,
  //     even after "14" or "14:30". A fraction that carries the value past
  //     the end of the day (".5e6") makes the time invalid.
  // Text after the fields is otherwise ignored ("143005+0100"). A null
  // pointer is invalid.
  BTime(const char* text);

  // Copies both fields as they are.
  BTime& operator=(const BTime& other);

  // BTime(seconds) of the current time.
  static BTime Now();

  // Each getter returns 0 for -1.
  int GetHour() const;
  int GetMinute() const;
  int GetSecond() const;
  int GetMilliSecond() const;
  Precision GetPrecision() const;

  // Below 86400000.
  bool IsValid() const;

  // 1 when the milliseconds are equal (precision ignored), else 0.
  int operator==(const BTime& other) const;
  bool operator<(const BTime& other) const;
  bool operator>(const BTime& other) const;

  // "%02d:%02d:%02d" into `out`, which holds 9 bytes.
  void ToString(char* out) const;
  ACE_CString ToString() const;
  // "%02d%02d%02d.%03d" with milliseconds, "%02d%02d%02d" without.
  ACE_CString ToDICOMString(bool withMilliseconds) const;
  // TM at the object's own precision: "14", "1430", "143005" or
  // "143005.123".
  ACE_CString AsDICOMString() const;
  // Display form at the precision `p`: "14", "14:30", "14:30:05" or
  // "14:30:05.123". With `markUnknown`, fields finer than the object's own
  // precision show as dashes: BTime("14").AsString(Millisecond, true) is
  // "14:--:--.---". A `p` outside the enumeration gives "".
  ACE_CString AsString(Precision p, bool markUnknown) const;

 private:
  friend class BTimeSpan;
  friend class BDateTime;

  ACE_UINT32 ms_;
  Precision precision_;
};

class COM_EXPORT BTimeSpan {
 public:
  // 0 days, 0 ms.
  BTimeSpan();
  // Stores both as given, without normalising.
  BTimeSpan(unsigned int days, unsigned int ms);
  BTimeSpan(const BTimeSpan& other);
  BTimeSpan& operator=(const BTimeSpan& other);

  unsigned int GetDays() const;
  unsigned int GetMilliSeconds() const;

  // 1 when both fields are equal, else 0.
  int operator==(const BTimeSpan& other) const;
  // Lexicographic on (days, ms); 1 or 0.
  int operator<(const BTimeSpan& other) const;
  int operator<=(const BTimeSpan& other) const;
  int operator>(const BTimeSpan& other) const;
  int operator>=(const BTimeSpan& other) const;

  // days * 86400000 + ms in 32-bit unsigned arithmetic: it wraps after
  // about 49.7 days, so use it for short spans only.
  operator unsigned long() const;

  // Adds and carries whole days out of the milliseconds.
  BTimeSpan& operator+=(const BTimeSpan& other);
  // Adds BTimeSpan(0, the time's milliseconds).
  BTimeSpan& operator+=(const BTime& time);
  // Saturates: a span not greater than `other` becomes 0 days 0 ms;
  // otherwise subtracts, borrowing a day when the milliseconds run short.
  BTimeSpan& operator-=(const BTimeSpan& other);
  BTimeSpan& operator-=(const BTime& time);

  BTimeSpan operator+(const BTimeSpan& other) const;
  BTimeSpan operator+(const BTime& time) const;
  BTimeSpan operator-(const BTimeSpan& other) const;
  BTimeSpan operator-(const BTime& time) const;

 private:
  ACE_UINT32 days_;
  ACE_UINT32 ms_;
};

#endif  // COM_COMMON_BASE_BTIME_H_
