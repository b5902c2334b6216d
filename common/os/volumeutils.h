// Storage volumes: listing them, recognising the system volume, mounting a
// volume on a folder and removing the mount, a volume's unique name, and the
// folders of simulated volumes for installations without dedicated disks.
//
// On Linux a volume is a block device that carries a file system. Its
// unique name is the fstab tag "UUID=<uuid>" of that file system, or the
// device path ("/dev/sdb1") when the file system has no UUID or the device
// cannot be read to find it (a device the process may not open is still
// listed when it is mounted, under its device path). Names are compared
// without regard to case. A mount point is a folder; a trailing '/' is
// optional everywhere. Linux choices, written here because the rules were
// made for another system:
//  - Fixed media: the disk of the device reports 0 in
//    /sys/block/<disk>/removable (a partition asks its disk).
//  - The system volume is the one mounted at "/". Its name is worked out
//    once, on the first call that needs it (not while the library loads, so
//    that loading it touches no device); when "/" is not a block-device file
//    system (a container's overlay, say) the name stays empty and
//    isSystemVolume warns and answers false.
//  - mountVolume mounts with mount(2), read-write and without options,
//    after finding the file-system type on the device itself; it needs the
//    privilege to mount (root, CAP_SYS_ADMIN).
//  - unmountVolume is umount2(2) without following a symbolic link at the
//    mount point; EINVAL (nothing mounted there) and ENOENT (no such folder)
//    count as success.
//  - There is no error mode to set for drives without media: nothing on
//    Linux shows a dialog.
//
// Errors: no function throws; results and log records (ACE_Log_Msg, unit
// "common/os/volumeutils") are given with each function; "%m" in a record
// prints the errno of the failed call.
//
// Thread safety: every function may be called from any thread; the system
// volume's name is computed once under the C++ static-initialisation lock.
//
//   std::vector<ACE_CString> volumes;
//   Kelvane::listVolumes(volumes, true, true);   // fixed, not the system one
//   for (const ACE_CString& v : volumes)
//     Kelvane::mountVolume("/archive/stacks/" + ..., v);
#ifndef COM_COMMON_OS_VOLUMEUTILS_H_
#define COM_COMMON_OS_VOLUMEUTILS_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

// Appends (never clears) the names of the machine's volumes, in the order of
// the block devices in sysfs. Each name is logged at debug ("Iterating stack
// %s"); with `fixedOnly` volumes on removable media are skipped (logged at
// debug), with `excludeSystem` the system volume is skipped. When the
// enumeration cannot even start, its error is logged and the empty name
// passes through the same steps, deliberately: listVolumes(v, false, false)
// then appends "".
COM_EXPORT void listVolumes(std::vector<ACE_CString>& volumes, bool fixedOnly,
                            bool excludeSystem);

// True when `volume` names the system volume (ignoring case), logged at
// debug with the system mount point. When the system volume's name is
// unknown: a warning naming `volume`, and false.
COM_EXPORT bool isSystemVolume(const ACE_CString& volume);

// Mounts `volume` on `mountPoint`, creating the folder (and its parents)
// first. True when it is mounted there afterwards, also when it already
// was; false (logged) when the folder cannot be made, another volume or file
// system is mounted there, or the mount fails (a name that matches no
// device fails with ENOENT).
COM_EXPORT bool mountVolume(const ACE_CString& mountPoint,
                            const ACE_CString& volume);

// Removes the mount at `mountPoint`. True on success and when nothing is
// mounted there (a plain folder, a missing path); false on any other error
// (EBUSY while files are open on it, EPERM without the privilege).
COM_EXPORT bool unmountVolume(const ACE_CString& mountPoint);

// The name of the volume mounted at `mountPoint` ("/" gives the system
// volume's). "" and a warning with errno EINVAL when nothing is mounted
// there (a plain folder), ENOTBLK when what is mounted is no block device
// (tmpfs, proc), or the error of reading the mount table.
COM_EXPORT ACE_CString uniqueVolumeName(const ACE_CString& mountPoint);

// Appends `count` folder paths "<baseDirectory>/volume000",
// "<baseDirectory>/volume001", ... (joined as concatPath joins). Creates
// nothing; always true.
COM_EXPORT bool listSimulatedVolumes(const ACE_CString& baseDirectory,
                                     std::vector<ACE_CString>& volumes,
                                     unsigned short count);

}  // namespace Kelvane

#endif  // COM_COMMON_OS_VOLUMEUTILS_H_
