#include "common/os/volumeutils.h"

#include <blkid/blkid.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <set>
#include <string>
#include <strings.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "common/base/comlog.h"
#include "common/os/internal/osfileshared.h"
#include "common/os/internal/volumeiterator.h"
#include "common/os/osfile.h"

namespace Kelvane {

// ================================================================ rules

namespace internal {

std::string VolumeNameFor(const char* uuid, const char* device) {
  if (uuid != nullptr && *uuid != '\0') return std::string("UUID=") + uuid;
  return device != nullptr ? device : "";
}

bool UnmountErrorMeansUnmounted(int error) {
  return error == 0 || error == EINVAL || error == ENOENT;
}

}  // namespace internal

// ================================================================ devices

namespace {

const char kSysBlock[] = "/sys/class/block";

// The text of a small sysfs attribute below `dirFd`, without the newline.
bool ReadAttribute(int dirFd, const std::string& name, std::string& out) {
  int fd = ::openat(dirFd, name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[512];
  ssize_t n = ::read(fd, buf, sizeof buf - 1);
  internal::CloseKeepingErrno(fd);
  if (n < 0) return false;
  out.assign(buf, static_cast<size_t>(n));
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) {
    out.pop_back();
  }
  return true;
}

// The device node of a sysfs block entry: "/dev/" + its DEVNAME, or
// `fallback` when the entry has none.
std::string DeviceNode(int dirFd, const std::string& entry,
                       const std::string& fallback) {
  std::string uevent;
  if (ReadAttribute(dirFd, entry + "/uevent", uevent)) {
    size_t at = uevent.find("DEVNAME=");
    if (at != std::string::npos) {
      size_t end = uevent.find('\n', at);
      return "/dev/" + uevent.substr(at + 8, end == std::string::npos
                                                 ? std::string::npos
                                                 : end - at - 8);
    }
  }
  return fallback;
}

// What the probe of a device found.
enum class Probe { kFileSystem, kNone, kUnreadable };

// Probes `device` for a file system (not swap, RAID members and the like);
// fills its UUID and type when there is one.
Probe ProbeDevice(const char* device, std::string* uuid, std::string* type) {
  blkid_probe pr = ::blkid_new_probe_from_filename(device);
  if (pr == nullptr) return Probe::kUnreadable;
  ::blkid_probe_enable_superblocks(pr, 1);
  ::blkid_probe_set_superblocks_flags(
      pr, BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE);
  Probe result = Probe::kNone;
  const char* usage = nullptr;
  if (::blkid_do_safeprobe(pr) == 0 &&
      ::blkid_probe_lookup_value(pr, "USAGE", &usage, nullptr) == 0 &&
      std::strcmp(usage, "filesystem") == 0) {
    result = Probe::kFileSystem;
    const char* value = nullptr;
    if (uuid != nullptr) {
      uuid->clear();
      if (::blkid_probe_lookup_value(pr, "UUID", &value, nullptr) == 0) {
        *uuid = value;
      }
    }
    if (type != nullptr) {
      type->clear();
      if (::blkid_probe_lookup_value(pr, "TYPE", &value, nullptr) == 0) {
        *type = value;
      }
    }
  }
  ::blkid_free_probe(pr);
  return result;
}

// One mount of the mount table.
struct Mount {
  std::string target;
  std::string source;
  dev_t device;
};

// The mounts of this process's namespace, in mount order. False with errno
// when the table cannot be read.
bool ReadMounts(std::vector<Mount>& out) {
  struct libmnt_table* table =
      ::mnt_new_table_from_file("/proc/self/mountinfo");
  if (table == nullptr) {
    if (errno == 0) errno = EIO;
    return false;
  }
  struct libmnt_iter* it = ::mnt_new_iter(MNT_ITER_FORWARD);
  struct libmnt_fs* fs = nullptr;
  while (it != nullptr && ::mnt_table_next_fs(table, it, &fs) == 0) {
    const char* target = ::mnt_fs_get_target(fs);
    const char* source = ::mnt_fs_get_source(fs);
    out.push_back(Mount{target ? target : "", source ? source : "",
                        ::mnt_fs_get_devno(fs)});
  }
  ::mnt_free_iter(it);
  ::mnt_unref_table(table);
  return true;
}

}  // namespace

// ================================================================ iterator

namespace internal {

struct VolumeIterator::Snapshot {
  struct Volume {
    std::string name;
    std::string node;
    dev_t device;
  };
  std::vector<Volume> volumes;
  size_t position = 0;
};

namespace {

// Every block device that carries a file system, plus those mounted whose
// content cannot be read; each named as VolumeNameFor says. False with errno
// when sysfs cannot be read.
bool EnumerateVolumes(std::vector<VolumeIterator::Snapshot::Volume>& out) {
  int dirFd = ::open(kSysBlock, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) return false;
  DIR* dir = ::fdopendir(dirFd);
  if (dir == nullptr) {
    CloseKeepingErrno(dirFd);
    return false;
  }
  std::set<dev_t> mounted;
  bool mountsRead = false;
  while (struct dirent* d = ::readdir(dir)) {
    if (d->d_name[0] == '.') continue;
    const std::string entry(d->d_name);
    std::string size, dev;
    if (!ReadAttribute(dirFd, entry + "/size", size) || size == "0" ||
        !ReadAttribute(dirFd, entry + "/dev", dev)) {
      continue;
    }
    unsigned major = 0, minor = 0;
    if (std::sscanf(dev.c_str(), "%u:%u", &major, &minor) != 2) continue;
    const dev_t devno = makedev(major, minor);
    const std::string node = DeviceNode(dirFd, entry, "/dev/" + entry);
    std::string uuid;
    Probe probe = ProbeDevice(node.c_str(), &uuid, nullptr);
    if (probe == Probe::kUnreadable) {
      // Mounted, so it holds a file system even if we may not look at it.
      if (!mountsRead) {
        std::vector<Mount> mounts;
        ReadMounts(mounts);
        for (const Mount& m : mounts) mounted.insert(m.device);
        mountsRead = true;
      }
      if (mounted.count(devno) == 0) continue;
    } else if (probe == Probe::kNone) {
      continue;
    }
    out.push_back({VolumeNameFor(uuid.c_str(), node.c_str()), node, devno});
  }
  ::closedir(dir);
  return true;
}

}  // namespace

VolumeIterator::VolumeIterator() : handle_(nullptr) {}

VolumeIterator::~VolumeIterator() { delete handle_; }

VolumeIterator::Result VolumeIterator::first(ACE_CString& volume) {
  volume = "";
  delete handle_;
  handle_ = nullptr;
  Snapshot* snapshot = new Snapshot;
  errno = 0;
  if (!EnumerateVolumes(snapshot->volumes) || snapshot->volumes.empty()) {
    if (errno == 0) errno = ENOENT;
    delete snapshot;
    COM_LOG((LM_ERROR,
             "VolumeIterator::first: FindFirstVolume() failed. OS Error: "
             "%m\n"));
    return Error;
  }
  handle_ = snapshot;
  volume = handle_->volumes[0].name.c_str();
  return OK;
}

VolumeIterator::Result VolumeIterator::next(ACE_CString& volume) {
  volume = "";
  if (handle_ == nullptr) {
    errno = EBADF;
    COM_LOG((LM_ERROR,
             "VolumeIterator::next: FindNextVolume() failed. OS Error: %m\n"));
    return Error;
  }
  if (handle_->position + 1 >= handle_->volumes.size()) {
    handle_->position = handle_->volumes.size();
    COM_LOG(
        (LM_DEBUG, "VolumeIterator::next: Reached end of volume iteration\n"));
    return End;
  }
  ++handle_->position;
  volume = handle_->volumes[handle_->position].name.c_str();
  return OK;
}

bool VolumeIterator::device(unsigned& major, unsigned& minor) const {
  if (handle_ == nullptr || handle_->position >= handle_->volumes.size()) {
    return false;
  }
  const dev_t d = handle_->volumes[handle_->position].device;
  major = ::major(d);
  minor = ::minor(d);
  return true;
}

}  // namespace internal

// ================================================================ mounts

namespace {

const char kSystemMountPoint[] = "/";

// The canonical absolute form of a folder path, as the mount table shows
// mount points. False with errno when it cannot be resolved.
bool CanonicalFolder(const ACE_CString& path, std::string& out) {
  char real[PATH_MAX];
  if (path.length() == 0) {
    errno = ENOENT;
    return false;
  }
  if (::realpath(path.c_str(), real) == nullptr) return false;
  out = real;
  return true;
}

// The volume name of the block device `devno`, its node taken from sysfs
// (`source`, the mount's, where sysfs does not know the device).
std::string VolumeNameOfDevice(dev_t devno, const std::string& source) {
  char dir[64];
  std::snprintf(dir, sizeof dir, "/sys/dev/block/%u:%u", ::major(devno),
                ::minor(devno));
  std::string node = source;
  int fd = ::open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    node = DeviceNode(fd, ".", source);
    ::close(fd);
  }
  std::string uuid;
  if (ProbeDevice(node.c_str(), &uuid, nullptr) != Probe::kFileSystem) {
    uuid.clear();
  }
  return internal::VolumeNameFor(uuid.c_str(), node.c_str());
}

// What is mounted at `path` (the topmost mount there): 0 with `name` the
// volume's name; ENOTBLK with `name` the mount's source when it is no block
// device; EINVAL when nothing is mounted there; else the errno of the
// failure.
int MountedAt(const ACE_CString& path, std::string& name) {
  std::string folder;
  if (!CanonicalFolder(path, folder)) return errno;
  std::vector<Mount> mounts;
  if (!ReadMounts(mounts)) return errno;
  for (auto it = mounts.rbegin(); it != mounts.rend(); ++it) {
    if (it->target != folder) continue;
    if (::major(it->device) == 0) {
      name = it->source;
      return ENOTBLK;
    }
    name = VolumeNameOfDevice(it->device, it->source);
    return 0;
  }
  return EINVAL;
}

// The device node of the volume called `volume`; empty with errno ENOENT
// when no device has that name.
std::string DeviceOfVolume(const ACE_CString& volume) {
  if (volume.length() > 0 && volume[0] == '/') {
    struct stat st;
    if (::stat(volume.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
      return std::string(volume.c_str(), volume.length());
    }
  }
  std::vector<internal::VolumeIterator::Snapshot::Volume> all;
  if (internal::EnumerateVolumes(all)) {
    for (const auto& v : all) {
      if (::strcasecmp(v.name.c_str(), volume.c_str()) == 0) return v.node;
    }
  }
  errno = ENOENT;
  return std::string();
}

struct SystemVolume {
  ACE_CString mountPoint;
  ACE_CString name;
  SystemVolume()
      : mountPoint(kSystemMountPoint),
        name(uniqueVolumeName(kSystemMountPoint)) {}
};

const SystemVolume& TheSystemVolume() {
  static const SystemVolume system;
  return system;
}

}  // namespace

// ================================================================ interface

void listVolumes(std::vector<ACE_CString>& volumes, bool fixedOnly,
                 bool excludeSystem) {
  internal::VolumeIterator iterator;
  ACE_CString name;
  // The result is not looked at: after a failed start the empty name goes
  // through the steps below like any other.
  iterator.first(name);
  for (;;) {
    COM_LOG((LM_DEBUG, "VolumeUtils::listVolumes: Iterating stack %s\n",
             name.c_str()));
    unsigned major = 0, minor = 0;
    if (fixedOnly && !(iterator.device(major, minor) &&
                       internal::IsFixedBlockDevice(major, minor))) {
      COM_LOG((LM_DEBUG,
               "VolumeUtils::listVolumes: Not fixed media. Won't list it in "
               "volume list.\n"));
    } else if (excludeSystem && isSystemVolume(name)) {
      // left out
    } else {
      volumes.push_back(name);
    }
    if (iterator.next(name) != internal::VolumeIterator::OK) break;
  }
}

bool isSystemVolume(const ACE_CString& volume) {
  const SystemVolume& system = TheSystemVolume();
  if (system.name.length() == 0) {
    COM_LOG((LM_WARNING,
             "VolumeUtils::isSystemVolume: Cannot determine if %s is a system "
             "volume. Unable to get system volume information.\n",
             volume.c_str()));
    return false;
  }
  if (::strcasecmp(volume.c_str(), system.name.c_str()) != 0) return false;
  COM_LOG((LM_DEBUG, "VolumeUtils::isSystemVolume: %s is a system volume\n",
           system.mountPoint.c_str()));
  return true;
}

ACE_CString uniqueVolumeName(const ACE_CString& mountPoint) {
  std::string name;
  int error = MountedAt(mountPoint, name);
  if (error != 0) {
    errno = error;
    COM_LOG((LM_WARNING,
             "VolumeUtils::uniqueVolumeName: Unable to get the unique volume "
             "name for mount point %s. OS Error: %m\n",
             mountPoint.c_str()));
    return ACE_CString();
  }
  return ACE_CString(name.c_str(), name.size());
}

bool mountVolume(const ACE_CString& mountPoint, const ACE_CString& volume) {
  const ACE_CString folder = normalizePath(mountPoint, true);
  if (CreateDirectoryRecursive(folder) != 0) {
    COM_LOG((LM_ERROR,
             "VolumeUtils::mountVolume: Unable to create mount point directory "
             "%s\n",
             folder.c_str()));
    return false;
  }
  std::string current;
  int error = MountedAt(folder, current);
  if (error == 0 || error == ENOTBLK) {
    if (error == 0 && ::strcasecmp(current.c_str(), volume.c_str()) == 0) {
      COM_LOG((LM_DEBUG,
               "VolumeUtils::mountVolume: %s is already mounted on %s\n",
               folder.c_str(), volume.c_str()));
      return true;
    }
    COM_LOG((LM_DEBUG,
             "VolumeUtils::mountVolume: Cannot mount volume. %s is mounted on "
             "a different volume %s\n",
             folder.c_str(), current.c_str()));
    return false;
  }
  const std::string device = DeviceOfVolume(volume);
  std::string type;
  bool ok = !device.empty();
  if (ok) {
    Probe probe = ProbeDevice(device.c_str(), nullptr, &type);
    if (probe != Probe::kFileSystem || type.empty()) {
      if (probe == Probe::kNone) errno = ENOTBLK;  // no file system on it
      ok = false;
    }
  }
  if (ok) {
    ok = ::mount(device.c_str(), folder.c_str(), type.c_str(), 0, nullptr) == 0;
  }
  if (!ok) {
    COM_LOG((LM_WARNING,
             "VolumeUtils::mountVolume: Error setting up the volume mount "
             "point. OS Error: %m\n"));
  }
  return ok;
}

bool unmountVolume(const ACE_CString& mountPoint) {
  const ACE_CString folder = normalizePath(mountPoint, true);
  int error = ::umount2(folder.c_str(), UMOUNT_NOFOLLOW) == 0 ? 0 : errno;
  return internal::UnmountErrorMeansUnmounted(error);
}

bool listSimulatedVolumes(const ACE_CString& baseDirectory,
                          std::vector<ACE_CString>& volumes,
                          unsigned short count) {
  for (unsigned i = 0; i < count; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "volume%03u", i);
    ACE_CString path;
    concatPath(path, baseDirectory.c_str(), name);
    volumes.push_back(path);
  }
  return true;
}

}  // namespace Kelvane
