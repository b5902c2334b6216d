// The volume enumeration behind listVolumes, private to the library; the
// tests reach it here.
#ifndef COM_COMMON_OS_INTERNAL_VOLUMEITERATOR_H_
#define COM_COMMON_OS_INTERNAL_VOLUMEITERATOR_H_

#include <string>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// A volume's name from what the device's probe found: "UUID=<uuid>", or the
// device path when `uuid` is null or empty.
COM_EXPORT std::string VolumeNameFor(const char* uuid, const char* device);

// Whether an errno of umount2(2) still means "nothing is mounted there any
// more": success (0), EINVAL (not a mount point) and ENOENT (no such path).
COM_EXPORT bool UnmountErrorMeansUnmounted(int error);

// Walks the volumes once. `first` takes a snapshot of the block devices
// that carry a file system (and of those mounted that cannot be probed), in
// sysfs order; `next` steps through it. The destructor closes it.
class COM_EXPORT VolumeIterator {
 public:
  enum Result { OK = 0, Error = 1, End = 2 };

  VolumeIterator();
  ~VolumeIterator();

  // `volume` emptied, then the first name: OK. No volume at all or no
  // readable sysfs: logged at error ("FindFirstVolume() failed", errno
  // ENOENT or the failed call's), Error.
  Result first(ACE_CString& volume);
  // `volume` emptied, then the next name: OK. Past the last one: logged at
  // debug, End. Without a successful `first`: logged at error (EBADF),
  // Error.
  Result next(ACE_CString& volume);

  // The device number (major, minor) of the name last given; false when
  // there is none.
  bool device(unsigned& major, unsigned& minor) const;

  struct Snapshot;

 private:
  VolumeIterator(const VolumeIterator&) = delete;
  VolumeIterator& operator=(const VolumeIterator&) = delete;

  Snapshot* handle_;  // null until first
};

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_VOLUMEITERATOR_H_
