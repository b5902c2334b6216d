// CSVParser reads a line of comma-separated values in which every value is
// enclosed in double quotes; a doubled quote inside stands for one quote.
// Unquoted values are refused on purpose.
//
// The parser keeps pointers into the caller's NUL-terminated text, which
// must stay alive and unchanged while the parser is used; a null text reads
// as the empty text. White space (isspace(), bytes taken as unsigned) around
// values and commas is skipped. One parser is not safe to share between
// threads without outside locking.
//
//   CSVParser p("\"Value1\", \"Quoted\"\"Value\"");
//   std::vector<ACE_CString> values;
//   p.ParseAllValues(values);   // 0: "Value1", "Quoted\"Value"
#ifndef COM_COMMON_BASE_CSVPARSER_H_
#define COM_COMMON_BASE_CSVPARSER_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT CSVParser {
 public:
  explicit CSVParser(const char* text);

  // Back to the start of the text.
  void Reset();

  // Reads the next quoted value into `value` (emptied first). Returns 0 when
  // a value was read, 1 when only white space is left, -1 on malformed text:
  // a value not starting with '"', an unterminated quote, or anything but
  // white space and one ',' after a closing quote. A trailing comma is
  // accepted and gives no extra value. On -1 the position stays where the
  // fault was found.
  int GetNextValue(ACE_String_Base<char>& value);

  // Calls GetNextValue until it returns non-zero, appending each value read
  // to `values` (not emptied first; values read before an error stay).
  // Returns 0 when the text was read to its end, -1 on malformed text.
  int ParseAllValues(std::vector<ACE_String_Base<char>>& values);

  // Runs the parser over four fixed inputs; 0 if every check passes, else
  // the negative number of the first failing check (-1 to -8).
  static int Test();

 protected:
  // Advances the current position over white space.
  void SkipWhiteSpace();

 private:
  const char* start_;
  const char* current_;
};

#endif  // COM_COMMON_BASE_CSVPARSER_H_
