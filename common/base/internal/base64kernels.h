// Base64 kernels behind Base64Coder.
//
// Encoding: the RFC 4648 alphabet with '=' padding, on one line.
//
// Decoding reads groups of four symbols with Base64Coder's rules: every
// byte whose value as a signed char is 32 or less (blanks, controls and
// 0x80-0xFE) is skipped, 0xFF counts as the end of the input, '=' in the
// third or fourth place pads the group (and ends decoding), a cut group or
// a byte outside the alphabet fails. Each decoder writes into `out`, which
// holds `capacity` bytes, and returns the number of decoded bytes, 0 on
// failure (including a result that would not fit in `capacity`).
//
// Three decoders give the same result for every input: the reference one
// reads symbol by symbol and nothing else; the portable one decodes runs
// of four clean alphabet bytes through tables and hands anything else to
// the reference reader; the AVX2 one does the same 32 bytes at a time.
// Base64Encode / Base64Decode pick the fastest for this processor.
// Thread safety: all are pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_BASE64KERNELS_H_
#define COM_COMMON_BASE_INTERNAL_BASE64KERNELS_H_

#include <cstddef>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

inline size_t Base64EncodedSize(size_t length) { return (length + 2) / 3 * 4; }

// Write Base64EncodedSize(length) characters (no terminator) to `out`.
COM_EXPORT void Base64EncodePortable(const unsigned char* data, size_t length,
                                     char* out);
// Only call the AVX2 kernels when Base64Avx2Available() is true.
COM_EXPORT void Base64EncodeAvx2(const unsigned char* data, size_t length,
                                 char* out);
COM_EXPORT bool Base64Avx2Available();
COM_EXPORT void Base64Encode(const unsigned char* data, size_t length,
                             char* out);

COM_EXPORT size_t Base64DecodeReference(const char* text, size_t length,
                                        unsigned char* out, size_t capacity);
COM_EXPORT size_t Base64DecodePortable(const char* text, size_t length,
                                       unsigned char* out, size_t capacity);
COM_EXPORT size_t Base64DecodeAvx2(const char* text, size_t length,
                                   unsigned char* out, size_t capacity);
COM_EXPORT size_t Base64Decode(const char* text, size_t length,
                               unsigned char* out, size_t capacity);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_BASE64KERNELS_H_
