// UIDGenerator's adapter rule and hooks for its tests.
#ifndef COM_COMMON_BASE_INTERNAL_UIDGENERATOR_INTERNAL_H_
#define COM_COMMON_BASE_INTERNAL_UIDGENERATOR_INTERNAL_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/base/comexport.h"

namespace uidgenerator_internal {

struct Adapter {
  std::string name;
  std::vector<unsigned char> address;  // hardware address, any length
};

// The walk of InitializeMAC: over the adapters in order, the first one with
// a 6-byte address whose upper (bytes 0..2) or lower (3..5) half is
// non-zero gives *first and *second as 24-bit big-endian numbers. Returns
// true when both are non-zero; false (with the halves found, or 0 and 0)
// otherwise, including when the first such adapter has one zero half.
COM_EXPORT bool PickHardwareNumbers(const std::vector<Adapter>& adapters,
                                    uint32_t* first, uint32_t* second);

// The AF_PACKET entries of getifaddrs() in its order. 0, or -1 with errno.
COM_EXPORT int ReadAdapters(std::vector<Adapter>* adapters);

// Back to the state at load: uninitialised, empty prefix, counter = value.
COM_EXPORT void ResetForTest(uint32_t counter);

}  // namespace uidgenerator_internal

#endif  // COM_COMMON_BASE_INTERNAL_UIDGENERATOR_INTERNAL_H_
