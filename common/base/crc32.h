// CRC-32 of a whole file, the checksum that ACE::crc32 (and zlib) compute.
//
// Thread safety: reentrant; nothing is shared between calls.
//
//   unsigned long crc = 0;
//   Kelvane::CalculateCRC32("/data/study/img.dcm", crc);  // always returns 0
#ifndef COM_COMMON_BASE_CRC32_H_
#define COM_COMMON_BASE_CRC32_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

// Maps the whole file (opened read-write, created when missing, mode 0644
// before the umask; shared read-write mapping), sets `crc` to the CRC-32 of
// its bytes with initial value 0, unmaps it and returns 0.
//
// The result is always 0. A file that cannot be opened read-write or
// mapped (a folder, a path under a missing folder, a read-only file for a
// caller without write permission) gives crc = 0, the CRC of no bytes.
// Asking for the CRC of a missing file creates it empty, and yields 0.
// Both behaviours are deliberate: callers rely on them.
COM_EXPORT int CalculateCRC32(const ACE_CString& path, unsigned long& crc);

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_CRC32_H_
