// BDate: a calendar date held as one proleptic Gregorian day number
// (day 1 = 1 January of year 1; 1 January 1970 = 719163), 0 meaning "no
// date". It reads the date texts that reach the servers (DICOM DA
// YYYYMMDD, YYYY-MM-DD / YYYY.MM.DD, US MM/DD/YYYY), prints DA, checks a
// four-digit year range and does day arithmetic.
//
// A BDate never throws: any text, number or fields that do not make a date
// of the years 1000..9999 give the day number 0, which IsValid() rejects,
// reads back as 0/0/0, prints as "00000000" and has the month name "BAD".
// Arithmetic works on the day number without re-validation.
//
//   BDate d("2024-03-15");           // or "20240315", "3/15/2024"
//   d += 17;                         // 1 April 2024
//   d.ToString();                    // "20240401"
//   d.GetDayofWeek();                // 0 (Monday)
//
// Thread safety: a value type; distinct objects may be used from any thread.
#ifndef COM_COMMON_BASE_BDATE_H_
#define COM_COMMON_BASE_BDATE_H_

#include <iosfwd>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

class BDateTime;

class COM_EXPORT BDate {
 public:
  // No date (day number 0).
  BDate();
  BDate(const BDate& other);
  // The day number `scalar`; 0 unless it is a date of 1000..9999.
  BDate(unsigned int scalar);
  // SetYMD(year, month, day).
  BDate(unsigned int year, unsigned int month, unsigned int day);
  // Parses a date text; anything it does not accept gives 0:
  //   - leading and trailing blanks (spaces) are ignored, and one pair of
  //     apostrophes around the rest is dropped: " '2024-03-15' ";
  //   - fewer than 8 characters left: 0;
  //   - a text with a "/" is US MM/DD/YYYY and needs a second "/"; the
  //     fields are read with atoi(), so "3/15/2024" parses but "2024/03/15"
  //     has month 2024 and gives 0;
  //   - otherwise a text without "." or "-" must be exactly 8 characters
  //     (YYYYMMDD), and one with them must have its first separator at
  //     index 4, the next at index 7 and more than 9 characters (YYYY-MM-DD,
  //     YYYY.MM.DD, mixed separators alike); text after the day is ignored
  //     ("2024-03-15T10:00" parses) while "20240315x" gives 0.
  // A null pointer gives 0.
  BDate(const char* text);
  // The local calendar date of an instant in seconds since 1970-01-01 UTC
  // (localtime_r in the TZ in force); 0 when it cannot be converted.
  BDate(ACE_INT64 seconds);

  BDate& operator=(const BDate& other);

  // Today's local date.
  static BDate Today();

  // 0 for an invalid date.
  unsigned int GetYear() const;
  unsigned int GetMonth() const;
  unsigned int GetDay() const;
  void GetYMD(unsigned int& year, unsigned int& month, unsigned int& day) const;
  // 0 = Monday ... 6 = Sunday, by Zeller's congruence on GetYMD().
  unsigned int GetDayofWeek() const;
  // "Jan".."Dec"; "BAD" when the month is not 1..12.
  const char* GetMonthString() const;

  bool IsValid() const;
  // 1000 <= year <= 9999, 1 <= month <= 12 and 1 <= day <= days in that
  // month (29 in February of a leap year).
  static bool IsValid(unsigned int year, unsigned int month, unsigned int day);

  // Stores the day number of year/month/day, or 0 when they are not valid.
  void SetYMD(unsigned int year, unsigned int month, unsigned int day);
  // Reads "%04d%02d%02d" as sscanf() does (blanks and signs included, fields
  // not read stay 0) and calls SetYMD(): "20240315" and "2024 3 5" are
  // dates, "2024-03-15" is not.
  void FromString(const char* text);

  // "%04d%02d%02d" of year, month, day into `out`, which holds 9 bytes;
  // longer output (years past 9999, reachable only through arithmetic) is
  // cut to fit.
  void ToString(char* out) const;
  ACE_CString ToString() const;

  // 1 when the day numbers are equal, else 0.
  int operator==(const BDate& other) const;
  bool operator<(const BDate& other) const;
  bool operator<=(const BDate& other) const;
  bool operator>(const BDate& other) const;
  bool operator>=(const BDate& other) const;
  // this - other in days.
  int operator-(const BDate& other) const;

  BDate& operator++();
  // Adds one day and, unlike the usual postfix form, returns this object
  // after the increment.
  BDate& operator++(int);
  BDate& operator--();
  BDate& operator+=(int days);
  BDate& operator-=(int days);

 private:
  friend class BDateTime;

  ACE_UINT32 day_;
};

// Reads at most 8 characters (up to a newline) and applies FromString().
COM_EXPORT std::istream& operator>>(std::istream& in, BDate& date);
// Writes the ToString(char*) text.
COM_EXPORT std::ostream& operator<<(std::ostream& out, const BDate& date);

#endif  // COM_COMMON_BASE_BDATE_H_
