// SHA-512 (FIPS 180-4), one-shot, for UIDGenerator::Remap.
// Thread safety: a pure function.
#ifndef COM_COMMON_BASE_INTERNAL_SHA512_H_
#define COM_COMMON_BASE_INTERNAL_SHA512_H_

#include <cstddef>
#include <cstdint>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

constexpr size_t kSha512DigestSize = 64;

// The digest of `length` bytes at `data` (null only with length 0).
COM_EXPORT void Sha512(const void* data, size_t length,
                       unsigned char digest[kSha512DigestSize]);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_SHA512_H_
