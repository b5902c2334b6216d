// CRC-32 kernels behind Kelvane::CalculateCRC32 (reflected polynomial
// 0xEDB88320, the checksum of zlib and ACE::crc32).
//
// Every kernel takes and returns the finished checksum, so calls chain as
// zlib's crc32() does: Crc32(Crc32(0, a, n), b, m) is the CRC of a then b,
// and the CRC of no bytes is the starting value.
//
// Crc32 picks the carry-less-multiply kernel when the processor has
// PCLMULQDQ and SSE4.1, and the slicing-by-8 kernel otherwise. Both are
// exposed so tests and benchmarks can run each one on any machine that has
// the instructions. Thread safety: all are pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_CRC32KERNELS_H_
#define COM_COMMON_BASE_INTERNAL_CRC32KERNELS_H_

#include <cstddef>
#include <cstdint>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// Slicing-by-8 over eight 256-entry tables; runs on any processor.
COM_EXPORT uint32_t Crc32Portable(uint32_t crc, const void* data,
                                  size_t length);

// Folding with PCLMULQDQ; only call it when Crc32ClmulAvailable() is true.
COM_EXPORT uint32_t Crc32Clmul(uint32_t crc, const void* data, size_t length);
COM_EXPORT bool Crc32ClmulAvailable();

// The fastest kernel for this processor.
COM_EXPORT uint32_t Crc32(uint32_t crc, const void* data, size_t length);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_CRC32KERNELS_H_
