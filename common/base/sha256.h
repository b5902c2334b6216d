// SHA-256 digest of a memory block as lower-case hexadecimal text.
//
// Thread safety: the class has no state; one object may be used from any
// number of threads at once.
//
//   Kelvane::SHA256 sha;
//   ACE_CString hex = sha.GetHash(buf, len);  // 64 digits, "" for len == 0
#ifndef COM_COMMON_BASE_SHA256_H_
#define COM_COMMON_BASE_SHA256_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

class COM_EXPORT SHA256 {
 public:
  // The digest of `length` bytes at `data` as 64 lower-case hexadecimal
  // digits, high nibble first. A null `data` or a zero `length` gives the
  // empty string, not the digest of empty input: callers treat "" as "no
  // data", deliberately.
  ACE_CString GetHash(unsigned char* data, unsigned long length);
};

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_SHA256_H_
