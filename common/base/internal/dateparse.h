// The text parsers behind BDate, BTime and BDateTime, over a [begin, end)
// range that stands for a terminated string of exactly those characters
// (BDateTime hands its date and time parts to them without copying).
#ifndef COM_COMMON_BASE_INTERNAL_DATEPARSE_H_
#define COM_COMMON_BASE_INTERNAL_DATEPARSE_H_

#include <ace/Basic_Types.h>

namespace Kelvane {
namespace dateparse {

// The day number of a date text as BDate(const char*) reads it, or 0.
ACE_UINT32 ParseDate(const char* begin, const char* end);

// The milliseconds (0xFFFFFFFF when invalid) and the precision (a
// BTime::Precision value) of a time text as BTime(const char*) reads it.
void ParseTime(const char* begin, const char* end, ACE_UINT32& ms,
               int& precision);

}  // namespace dateparse
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_DATEPARSE_H_
