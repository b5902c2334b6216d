// The MD5 engine behind Kelvane::md5wrapper (RFC 1321).
//
// Md5Engine holds no state: a digest in progress lives in an Md5Context
// owned by the caller, so one engine may serve any number of threads.
#ifndef COM_COMMON_BASE_INTERNAL_MD5KERNELS_H_
#define COM_COMMON_BASE_INTERNAL_MD5KERNELS_H_

#include <cstddef>
#include <cstdint>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

constexpr size_t kMd5DigestSize = 16;

struct Md5Context {
  uint32_t state[4];
  uint64_t length;  // bytes fed so far
  unsigned char pending[64];
};

class COM_EXPORT Md5Engine {
 public:
  void Init(Md5Context& ctx) const;
  void Update(Md5Context& ctx, const void* data, size_t length) const;
  void Final(Md5Context& ctx, unsigned char digest[kMd5DigestSize]) const;
  // Init, Update and Final in one call (null `data` only with length 0).
  void Digest(const void* data, size_t length,
              unsigned char digest[kMd5DigestSize]) const;
};

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_MD5KERNELS_H_
