// String helpers over ACE_CString: trimming, cleaning, classification,
// splitting, wildcard matching and a case-insensitive ordering functor.
//
// Every function works on single-byte characters classified as unsigned.
// The in-place functions use the C runtime's classification in the current
// locale (isspace, isdigit, tolower, toupper); the two filter functions use
// the classic locale's ctype<char> table. No function keeps state, so all
// may be called from any thread.
//
//   std::vector<ACE_CString> parts;
//   Kelvane::splitString("a,b,,c", ",", parts);   // "a" "b" "" "c", returns 4
//   Kelvane::matchesWildcard("file.dcm", "*.dcm");  // true
#ifndef COM_COMMON_BASE_STRINGUTILS_H_
#define COM_COMMON_BASE_STRINGUTILS_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

// Removes the leading run of isspace() characters, in place.
COM_EXPORT void EatWhitespaceL(ACE_CString& s);
// Removes the trailing run of isspace() characters, in place.
COM_EXPORT void EatWhitespaceR(ACE_CString& s);
// EatWhitespaceR, then EatWhitespaceL.
COM_EXPORT void EatWhitespaceLR(ACE_CString& s);

// If `s` ends with `suffix`, cuts it off and returns 0; otherwise returns
// -1 and leaves `s` alone. An empty suffix matches (0, `s` unchanged);
// RemoveFromEnd("a", "abc") is -1.
COM_EXPORT int RemoveFromEnd(ACE_CString& s, const ACE_CString& suffix);

// Every character through tolower() / toupper(), in place.
COM_EXPORT void ToLowerCase(ACE_CString& s);
COM_EXPORT void ToUpperCase(ACE_CString& s);

// Decimal text of n, with a leading '-' for negatives.
COM_EXPORT ACE_CString intToString(int n);

// True when every character satisfies isdigit(); true for "" and false for
// "-1", "1.5" or " 1".
COM_EXPORT bool isNumeric(const ACE_CString& s);

// A copy without the leading '0' characters: "0100" gives "100" and "000"
// gives "" (not "0"), deliberately.
COM_EXPORT ACE_CString removeLeadingZeros(const ACE_CString& s);

// A copy keeping only letters and digits of the classic locale.
COM_EXPORT ACE_CString removeNonAlphaNumerics(const ACE_CString& s);

// Despite the name, a copy keeping only the digits: "AB-12.3c" gives "123".
// Callers use it to pull the digits out of identifiers.
COM_EXPORT ACE_CString removeNonAlphaAndAlphaNumerics(const ACE_CString& s);

// Appends the pieces of `s` between occurrences of `delimiter` to `out`
// (not cleared first) and returns out.size(). An empty `s` appends nothing
// and returns 0 whatever `out` held. After a match at p the next search
// starts at p + 1, so with a longer delimiter its tail heads the next piece:
// splitString("x::y", "::", out) appends "x" and ":y". Adjacent delimiters
// give empty pieces; a trailing delimiter gives a final empty piece.
COM_EXPORT unsigned splitString(const ACE_CString& s,
                                const ACE_CString& delimiter,
                                std::vector<ACE_CString>& out);

// A copy without the leading (trimLeft) or trailing (trimRight) run of
// characters that occur in `chars`: trimRight("path///", "/") is "path".
COM_EXPORT ACE_CString trimLeft(const ACE_CString& s, const ACE_CString& chars);
COM_EXPORT ACE_CString trimRight(const ACE_CString& s,
                                 const ACE_CString& chars);

// True when `pattern`, with every '*' turned into ".*", matches the whole
// of `text` as an ECMAScript regular expression. Nothing else is escaped:
// '.' matches any character, '?' makes the previous one optional, brackets
// form classes, so matchesWildcard("fileXdcm", "*.dcm") is true. An invalid
// expression throws std::regex_error to the caller.
COM_EXPORT bool matchesWildcard(ACE_CString text, ACE_CString pattern);

// Case-insensitive ordering for containers keyed by ACE_CString: strcoll()
// in the current locale on case-folded copies, true when a sorts first.
struct COM_EXPORT CompareStringNoCase {
  bool operator()(ACE_CString a, ACE_CString b) const;
};

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_STRINGUTILS_H_
