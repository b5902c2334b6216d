// SHA-256 engines behind Kelvane::SHA256 (FIPS 180-4).
//
// Sha256 picks the kernel built on the processor's SHA extensions when they
// are there (with SSSE3/SSE4.1) and the portable, fully unrolled one
// otherwise. Both are exposed so tests and benchmarks can run each one.
// Thread safety: all are pure functions.
#ifndef COM_COMMON_BASE_INTERNAL_SHA256KERNELS_H_
#define COM_COMMON_BASE_INTERNAL_SHA256KERNELS_H_

#include <cstddef>
#include <cstdint>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

constexpr size_t kSha256DigestSize = 32;

// One-shot digests of `length` bytes at `data` (null only with length 0).
COM_EXPORT void Sha256Portable(const void* data, size_t length,
                               unsigned char digest[kSha256DigestSize]);
// Only call it when Sha256ShaNiAvailable() is true.
COM_EXPORT void Sha256ShaNi(const void* data, size_t length,
                            unsigned char digest[kSha256DigestSize]);
COM_EXPORT bool Sha256ShaNiAvailable();

// The fastest kernel for this processor.
COM_EXPORT void Sha256(const void* data, size_t length,
                       unsigned char digest[kSha256DigestSize]);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_SHA256KERNELS_H_
