// Hexadecimal conversion of single digits and byte buffers, and a readable
// hex dump. Digits are written in upper case and read in either case.
//
// Thread safety: pure functions over caller-owned buffers.
//
//   char hex[2 * 4 + 1];
//   Kelvane::BinBufToHexStr(bytes, 4, hex, true);   // "DEADBEEF"
//   Kelvane::HexStrToBinBuf("deadbeef", 8, bytes);   // back again
#ifndef COM_COMMON_BASE_HEXUTILS_H_
#define COM_COMMON_BASE_HEXUTILS_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

// 0-9 give '0'-'9', 10-15 give 'A'-'F'; any other value gives '\0'
// (BinToHex(16) == '\0').
COM_EXPORT char BinToHex(unsigned char nibble);

// '0'-'9' give 0-9, 'a'-'f' and 'A'-'F' give 10-15; anything else gives
// 255 (HexToBin('g') == 255).
COM_EXPORT unsigned char HexToBin(char c);

// Writes two upper-case digits per byte, high nibble first, into `out`
// (2 * length characters), and with `terminate` a '\0' at out[2 * length].
// Returns `out`. Writes nothing when `data` or `out` is null.
COM_EXPORT char* BinBufToHexStr(const unsigned char* data, unsigned length,
                                char* out, bool terminate);

// out[i] = 16 * HexToBin(hex[2i]) + HexToBin(hex[2i+1]), kept to 8 bits,
// for i < hexLength / 2. Does nothing when a pointer is null or hexLength
// is odd. Invalid digits are not reported: "g0" gives (16*255 + 0) & 0xFF
// = 0xF0, "0g" gives 0xFF.
COM_EXPORT void HexStrToBinBuf(const char* hex, unsigned hexLength,
                               unsigned char* out);

// Appends each byte as "%02X " and a "\n" after every `bytesPerLine` bytes;
// an incomplete last line is ended by one more "\n". Appends nothing for
// null `data` or zero `length`. A `bytesPerLine` of 0 puts every byte on
// one line, ended by "\n".
//   {1,2,3,4,5}, 4 per line -> "01 02 03 04 \n05 \n"
COM_EXPORT void AsciiHexDumpToString(const unsigned char* data, unsigned length,
                                     unsigned bytesPerLine, ACE_CString& out);

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_HEXUTILS_H_
