// Base64 encoding and decoding (RFC 4648 alphabet, '=' padding, no line
// breaks) with the lenient reader the servers have always used.
//
// Thread safety: the class has no state; one object may be used from any
// number of threads at once.
//
//   Base64Coder b64;
//   ACE_CString text;
//   b64.Encode(text, bytes, n);                       // "AAEC..."
//   unsigned got = 0;
//   Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
//       b64.Decode(text.c_str(), text.length(), got);  // got == n
#ifndef COM_COMMON_BASE_BASE64CODER_H_
#define COM_COMMON_BASE_BASE64CODER_H_

#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/base/smartptr.h"

class COM_EXPORT Base64Coder {
 public:
  Base64Coder();
  ~Base64Coder();

  // Replaces `out` with the encoding of `length` bytes at `data`: four
  // characters per three bytes, '=' padding to a multiple of four, one line
  // at any length. 1 byte gives "xx==", 2 bytes "xxx=", 0 bytes "". A null
  // `data` encodes as no bytes.
  void Encode(ACE_CString& out, const unsigned char* data, unsigned length);

  // Returns a new buffer of `length` bytes (the caller owns it) holding the
  // decoded bytes, and their number in `decodedLength`; 0 means failure or
  // empty input, and the buffer is returned either way.
  //
  // The reader is lenient, deliberately:
  //  - every byte whose value as a signed char is 32 or less is skipped:
  //    blanks, line breaks, control characters and also 0x80-0xFE;
  //  - the byte 0xFF is the end of the input;
  //  - input ending at the start of a group ends decoding successfully;
  //    ending inside a group ("QUJ", "QQ=") fails;
  //  - a byte outside the alphabet and '=' fails;
  //  - a group gives 1 byte when its third symbol is '=', 2 when only its
  //    fourth is, else 3; '=' in the first two places reads as the value 0;
  //  - decoding stops after a padded group: "QQ==QUJD" gives one byte.
  // A null `text` is decoded as empty input.
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> Decode(
      const char* text, unsigned length, unsigned& decodedLength);
};

#endif  // COM_COMMON_BASE_BASE64CODER_H_
