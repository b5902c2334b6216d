#include "common/os/volumeutils.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <linux/loop.h>
#include <memory>
#include <random>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/volumeiterator.h"

#include "support/logcapture.h"
#include "support/tempfolder.h"

namespace {

namespace K = Kelvane;
using testsupport::LogCapture;
using testsupport::TempFolder;

std::vector<std::string> Strings(const std::vector<ACE_CString>& v) {
  std::vector<std::string> out;
  for (const ACE_CString& s : v) out.emplace_back(s.c_str(), s.length());
  return out;
}

bool Contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

bool Logged(const LogCapture& logs, ACE_Log_Priority priority,
            const std::string& start) {
  for (const auto& r : logs.records()) {
    if (r.priority == priority && r.text.compare(0, start.size(), start) == 0)
      return true;
  }
  return false;
}

std::string Run(const std::string& cmd) {
  std::string out;
  FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char buf[256];
  while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
  ::pclose(p);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
    out.pop_back();
  return out;
}

bool HaveTool(const char* name) {
  return std::system((std::string("command -v ") + name + " >/dev/null 2>&1")
                         .c_str()) == 0;
}

// A small file-system image attached to a free loop device, detached (after
// any mount of it is removed) when the object goes.
class LoopVolume {
 public:
  // `mkfs` gets the image path appended.
  LoopVolume(const std::string& image, int megabytes, const std::string& mkfs) {
    std::ofstream(image, std::ios::binary | std::ios::trunc).close();
    if (::truncate(image.c_str(), static_cast<off_t>(megabytes) << 20) != 0 ||
        std::system((mkfs + " '" + image + "' >/dev/null 2>&1").c_str()) != 0) {
      return;
    }
    int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
    int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    for (int attempt = 0; file >= 0 && control >= 0 && attempt < 20;
         ++attempt) {
      int n = ::ioctl(control, LOOP_CTL_GET_FREE);
      if (n < 0) break;
      std::string dev = "/dev/loop" + std::to_string(n);
      int fd = ::open(dev.c_str(), O_RDWR | O_CLOEXEC);
      if (fd < 0) continue;
      struct loop_config config;
      std::memset(&config, 0, sizeof config);
      config.fd = static_cast<__u32>(file);
      if (::ioctl(fd, LOOP_CONFIGURE, &config) == 0) {
        fd_ = fd;
        device_ = dev;
        number_ = n;
        break;
      }
      ::close(fd);  // taken by someone else in the meantime
    }
    if (control >= 0) ::close(control);
    if (file >= 0) ::close(file);
  }
  ~LoopVolume() {
    if (fd_ < 0) return;
    ::ioctl(fd_, LOOP_CLR_FD, 0);
    ::close(fd_);
  }
  LoopVolume(const LoopVolume&) = delete;
  LoopVolume& operator=(const LoopVolume&) = delete;

  bool ok() const { return fd_ >= 0; }
  const std::string& device() const { return device_; }
  std::string sysName() const { return "loop" + std::to_string(number_); }

 private:
  int fd_ = -1;
  int number_ = -1;
  std::string device_;
};

// Runs `fn` in a forked child and returns its text ("child failed ..." when
// it did not finish normally).
std::string InChild(const std::function<std::string()>& fn) {
  int fds[2];
  if (::pipe(fds) != 0) return "pipe failed";
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    std::string text = fn();
    if (::write(fds[1], text.data(), text.size()) < 0) ::_exit(4);
    ::_exit(0);
  }
  ::close(fds[1]);
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = ::read(fds[0], buf, sizeof buf)) > 0;)
    text.append(buf, n);
  ::close(fds[0]);
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return "child failed, status " + std::to_string(status);
  }
  return text;
}

// In a child: a mount namespace of its own in which nothing propagates back.
bool PrivateMounts() {
  return ::unshare(CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// The volume name the system volume must have, worked out from
// /proc/self/mountinfo and sysfs independently of the library: "" when "/"
// is no block-device file system.
std::string ExpectedSystemVolume() {
  std::ifstream in("/proc/self/mountinfo");
  std::string line, devno;
  while (std::getline(in, line)) {
    std::istringstream f(line);
    std::string id, parent, majmin, root, target;
    f >> id >> parent >> majmin >> root >> target;
    if (target == "/") devno = majmin;  // the last mount on "/" is on top
  }
  if (devno.empty() || devno.compare(0, 2, "0:") == 0) return "";
  std::ifstream uevent("/sys/dev/block/" + devno + "/uevent");
  std::string node;
  while (std::getline(uevent, line)) {
    if (line.compare(0, 8, "DEVNAME=") == 0) node = "/dev/" + line.substr(8);
  }
  std::string uuid =
      Run("blkid -p -s UUID -o value '" + node + "' 2>/dev/null");
  return uuid.empty() ? node : "UUID=" + uuid;
}

class VolumeUtilsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for loop devices";
    ASSERT_TRUE(folder_.ok());
  }

  // An ext4 volume with a known UUID.
  std::unique_ptr<LoopVolume> Ext4(const std::string& uuid) {
    if (!HaveTool("mkfs.ext4")) return nullptr;
    auto v = std::make_unique<LoopVolume>(folder_.File(uuid + ".img"), 8,
                                          "mkfs.ext4 -q -F -U " + uuid);
    return v->ok() ? std::move(v) : nullptr;
  }
  // A vfat volume with the volume id `id` (eight hex digits), whose name is
  // "UUID=XXXX-XXXX".
  std::unique_ptr<LoopVolume> Vfat(const std::string& id) {
    if (!HaveTool("mkfs.vfat")) return nullptr;
    auto v = std::make_unique<LoopVolume>(folder_.File(id + ".img"), 8,
                                          "mkfs.vfat -i " + id);
    return v->ok() ? std::move(v) : nullptr;
  }
  static std::string VfatName(const std::string& id) {
    std::string upper = id;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    return "UUID=" + upper.substr(0, 4) + "-" + upper.substr(4);
  }

  TempFolder folder_;
};

// Loop devices are machine-wide and the suite's cases run as parallel
// processes: each process names its images with UUIDs of its own, so two
// cases never see each other's volumes under one name.
std::uint32_t ProcessTag() {
  static const std::uint32_t tag = std::random_device{}();
  return tag;
}
std::string TestUuid(unsigned index) {
  char uuid[40];
  std::snprintf(uuid, sizeof uuid, "%08x-%04x-4000-8000-%012x", ProcessTag(),
                index & 0xffffu, index);
  return uuid;
}
std::string TestVfatId() {
  char id[16];
  std::snprintf(id, sizeof id, "%08x", ProcessTag());
  return id;
}

const std::string kExt4Uuid = TestUuid(1);
const std::string kVfatId = TestVfatId();

TEST(VolumeRules, NamesAndUnmountErrors) {
  struct {
    const char* uuid;
    const char* device;
    const char* name;
  } names[] = {
      {"0a-b", "/dev/sdb1", "UUID=0a-b"},
      {"", "/dev/sdb1", "/dev/sdb1"},
      {nullptr, "/dev/loop3", "/dev/loop3"},
  };
  for (const auto& r : names) {
    EXPECT_EQ(r.name, K::internal::VolumeNameFor(r.uuid, r.device)) << r.device;
  }
  struct {
    int error;
    bool unmounted;
  } errors[] = {{0, true},      {EINVAL, true}, {ENOENT, true},
                {EBUSY, false}, {EPERM, false}, {ENOTDIR, false}};
  for (const auto& r : errors) {
    EXPECT_EQ(r.unmounted, K::internal::UnmountErrorMeansUnmounted(r.error))
        << r.error;
  }
}

TEST(VolumeUtils, SimulatedVolumesAreJoinedNamesOnly) {
  TempFolder folder;
  const std::string base = folder.File("stacks");
  struct {
    std::string base;
    unsigned short count;
    std::vector<std::string> expected;
  } rows[] = {
      {base,
       3,
       {base + "/volume000", base + "/volume001", base + "/volume002"}},
      {base + "/", 1, {base + "/volume000"}},
      {base, 0, {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.base + " " + std::to_string(r.count));
    std::vector<ACE_CString> out{"kept"};
    EXPECT_TRUE(K::listSimulatedVolumes(r.base.c_str(), out, r.count));
    std::vector<std::string> expected{"kept"};
    expected.insert(expected.end(), r.expected.begin(), r.expected.end());
    EXPECT_EQ(expected, Strings(out));
  }
  std::vector<ACE_CString> twelve;
  K::listSimulatedVolumes(base.c_str(), twelve, 12);
  ASSERT_EQ(12u, twelve.size());
  EXPECT_STREQ((base + "/volume011").c_str(), twelve.back().c_str());
  struct stat st;
  EXPECT_NE(0, ::stat(base.c_str(), &st)) << "nothing is created on disk";
}

TEST_F(VolumeUtilsTest, SystemVolumeMatchesMountTable) {
  const std::string expected = ExpectedSystemVolume();
  LogCapture logs;
  EXPECT_EQ(expected, K::uniqueVolumeName("/").c_str());
  if (expected.empty()) {
    EXPECT_FALSE(K::isSystemVolume("UUID=anything"));
    EXPECT_TRUE(Logged(logs, LM_WARNING,
                       "VolumeUtils::isSystemVolume: Cannot determine if "
                       "UUID=anything is a system volume."));
    return;
  }
  std::string otherCase = expected;
  for (char& c : otherCase) {
    c = static_cast<char>(std::isupper(static_cast<unsigned char>(c))
                              ? std::tolower(c)
                              : std::toupper(c));
  }
  EXPECT_TRUE(K::isSystemVolume(expected.c_str()));
  EXPECT_TRUE(K::isSystemVolume(otherCase.c_str()));
  EXPECT_TRUE(Logged(logs, LM_DEBUG,
                     "VolumeUtils::isSystemVolume: / is a system volume"));
  EXPECT_FALSE(K::isSystemVolume((expected + "x").c_str()));
  EXPECT_FALSE(K::isSystemVolume(""));
}

TEST_F(VolumeUtilsTest, ListsVolumesByFlags) {
  auto ext4 = Ext4(kExt4Uuid);
  auto vfat = Vfat(kVfatId);
  if (!ext4) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string ext4Name = std::string("UUID=") + kExt4Uuid;
  const std::string system = ExpectedSystemVolume();
  for (bool fixedOnly : {false, true}) {
    for (bool excludeSystem : {false, true}) {
      SCOPED_TRACE(std::string("fixedOnly ") + (fixedOnly ? "1" : "0") +
                   " excludeSystem " + (excludeSystem ? "1" : "0"));
      std::vector<ACE_CString> out{"kept"};
      K::listVolumes(out, fixedOnly, excludeSystem);
      std::vector<std::string> names = Strings(out);
      ASSERT_FALSE(names.empty());
      EXPECT_EQ("kept", names.front()) << "the list is appended to";
      // Loop devices are not removable media.
      EXPECT_TRUE(Contains(names, ext4Name));
      if (vfat) {
        EXPECT_TRUE(Contains(names, VfatName(kVfatId)));  // its volume id
      }
      // A device without a file system is no volume.
      for (const std::string& n : names) EXPECT_NE("", n);
      std::vector<std::string> sorted(names);
      std::sort(sorted.begin(), sorted.end());
      EXPECT_TRUE(std::adjacent_find(sorted.begin(), sorted.end()) ==
                  sorted.end())
          << "a volume listed twice";
      if (!system.empty()) {
        EXPECT_EQ(!excludeSystem, Contains(names, system)) << system;
      }
    }
  }
}

// A FAT file system is named by its volume id; it is listed without being
// mounted (this kernel may not even have the vfat driver).
TEST_F(VolumeUtilsTest, ListsFatVolumeByItsVolumeId) {
  if (!HaveTool("mkfs.vfat")) {
    GTEST_SKIP() << "mkfs.vfat (dosfstools) is not installed";
  }
  auto vfat = Vfat(kVfatId);
  if (!vfat) GTEST_SKIP() << "no loop device";
  std::vector<ACE_CString> out;
  K::listVolumes(out, true, true);
  EXPECT_TRUE(Contains(Strings(out), VfatName(kVfatId)));
  EXPECT_FALSE(Contains(Strings(out), vfat->device())) << "named by device";
}

// Loop devices are never removable and the kernel offers no way to mark one
// so; as the nearest real thing, a child in a mount namespace of its own
// bind-mounts a file reading "1" over the device's sysfs "removable".
TEST_F(VolumeUtilsTest, RemovableMediaLeftOutOfFixedList) {
  const std::string kRemovableUuid = TestUuid(2);
  auto ext4 = Ext4(kExt4Uuid);
  auto removable = Ext4(kRemovableUuid);
  if (!ext4 || !removable) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string one = folder_.Write("removable", "1\n");
  const std::string attribute =
      "/sys/block/" + removable->sysName() + "/removable";
  const std::string removableName = std::string("UUID=") + kRemovableUuid;
  const std::string ext4Name = std::string("UUID=") + kExt4Uuid;
  std::string answer = InChild([&]() -> std::string {
    if (!PrivateMounts() || ::mount(one.c_str(), attribute.c_str(), nullptr,
                                    MS_BIND, nullptr) != 0) {
      return std::string("setup: ") + std::strerror(errno);
    }
    std::vector<ACE_CString> fixed, all;
    LogCapture logs;
    K::listVolumes(fixed, true, false);
    K::listVolumes(all, false, false);
    std::vector<std::string> f = Strings(fixed), a = Strings(all);
    std::string r;
    r += Contains(f, removableName) ? "removable-in-fixed " : "";
    r += Contains(f, ext4Name) ? "" : "ext4-not-in-fixed ";
    r += Contains(a, removableName) ? "" : "removable-not-in-all ";
    r += Logged(logs, LM_DEBUG,
                "VolumeUtils::listVolumes: Not fixed media. Won't list it in "
                "volume list.\n")
             ? ""
             : "no-skip-log ";
    return r.empty() ? "ok" : r;
  });
  EXPECT_EQ("ok", answer);
}

// When the enumeration cannot start, its result is not looked at: the empty
// name goes through the steps. A child hides every block device behind an
// empty tmpfs over sysfs's block class.
TEST_F(VolumeUtilsTest, FailedStartPassesTheEmptyName) {
  std::string answer = InChild([]() -> std::string {
    if (!PrivateMounts() ||
        ::mount("none", "/sys/class/block", "tmpfs", 0, nullptr) != 0) {
      return std::string("setup: ") + std::strerror(errno);
    }
    std::string r;
    {
      LogCapture logs;
      std::vector<ACE_CString> all;
      K::listVolumes(all, false, false);
      if (Strings(all) != std::vector<std::string>{""}) r += "all-not-empty ";
      if (!Logged(logs, LM_ERROR,
                  "VolumeIterator::first: FindFirstVolume() failed. OS "
                  "Error: ")) {
        r += "no-first-log ";
      }
      if (!Logged(
              logs, LM_ERROR,
              "VolumeIterator::next: FindNextVolume() failed. OS Error: ")) {
        r += "no-next-log ";
      }
      if (!Logged(logs, LM_DEBUG,
                  "VolumeUtils::listVolumes: Iterating stack \n"))
        r += "no-iterating-log ";
    }
    std::vector<ACE_CString> fixed;
    K::listVolumes(fixed, true, false);
    if (!fixed.empty()) r += "fixed-not-empty ";
    return r.empty() ? "ok" : r;
  });
  EXPECT_EQ("ok", answer);
}

TEST_F(VolumeUtilsTest, IteratorStepsToTheEnd) {
  auto ext4 = Ext4(kExt4Uuid);
  if (!ext4) GTEST_SKIP() << "no loop device or mkfs.ext4";
  LogCapture logs;
  K::internal::VolumeIterator unstarted;
  ACE_CString name = "x";
  EXPECT_EQ(K::internal::VolumeIterator::Error, unstarted.next(name));
  EXPECT_EQ(0u, name.length());

  K::internal::VolumeIterator it;
  ASSERT_EQ(K::internal::VolumeIterator::OK, it.first(name));
  std::vector<std::string> seen{name.c_str()};
  K::internal::VolumeIterator::Result r;
  while ((r = it.next(name)) == K::internal::VolumeIterator::OK) {
    seen.emplace_back(name.c_str());
  }
  EXPECT_EQ(K::internal::VolumeIterator::End, r);
  EXPECT_EQ(0u, name.length());
  EXPECT_EQ(K::internal::VolumeIterator::End, it.next(name));
  EXPECT_TRUE(Contains(seen, std::string("UUID=") + kExt4Uuid));
  EXPECT_TRUE(
      Logged(logs, LM_DEBUG,
             "VolumeIterator::next: Reached end of volume iteration\n"));
}

TEST_F(VolumeUtilsTest, MountsAndUnmounts) {
  // Two ext4 volumes: this kernel may lack vfat, whose mount would fail.
  const std::string kOtherUuid = TestUuid(3);
  auto ext4 = Ext4(kExt4Uuid);
  auto other = Ext4(kOtherUuid);
  if (!ext4 || !other) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string ext4Name = std::string("UUID=") + kExt4Uuid;
  const std::string otherName = std::string("UUID=") + kOtherUuid;
  const std::string point = folder_.File("stacks/volume000");
  const std::string second = folder_.File("stacks/volume001");
  struct Cleanup {
    std::vector<std::string> points;
    ~Cleanup() {
      for (const std::string& p : points) ::umount2(p.c_str(), MNT_DETACH);
    }
  } cleanup{{point, second}};

  // Mounting creates the folder and its parents.
  ASSERT_TRUE(K::mountVolume(point.c_str(), ext4Name.c_str()));
  EXPECT_EQ(ext4Name, K::uniqueVolumeName(point.c_str()).c_str());
  EXPECT_EQ(ext4Name, K::uniqueVolumeName((point + "/").c_str()).c_str());
  {
    LogCapture logs;
    // The same pair again (names compare without regard to case).
    std::string upper = ext4Name;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    EXPECT_TRUE(K::mountVolume(point.c_str(), upper.c_str()));
    EXPECT_TRUE(Logged(logs, LM_DEBUG,
                       "VolumeUtils::mountVolume: " + point +
                           "/ is already mounted on " + upper));
    // Another volume on the occupied folder.
    EXPECT_FALSE(K::mountVolume(point.c_str(), otherName.c_str()));
    EXPECT_TRUE(Logged(logs, LM_DEBUG,
                       "VolumeUtils::mountVolume: Cannot mount volume. " +
                           point + "/ is mounted on a different volume " +
                           ext4Name));
  }
  EXPECT_EQ(ext4Name, K::uniqueVolumeName(point.c_str()).c_str());
  ASSERT_TRUE(K::mountVolume(second.c_str(), otherName.c_str()));
  EXPECT_EQ(otherName, K::uniqueVolumeName(second.c_str()).c_str());

  // Files written through the mount land on the volume.
  std::ofstream(point + "/probe.txt") << "on ext4";
  {
    // Busy while a file is open on it.
    int fd = ::open((point + "/probe.txt").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(K::unmountVolume(point.c_str()));
    ::close(fd);
  }
  EXPECT_TRUE(K::unmountVolume(point.c_str()));
  struct stat st;
  EXPECT_NE(0, ::stat((point + "/probe.txt").c_str(), &st));
  {
    LogCapture logs;
    EXPECT_EQ("", std::string(K::uniqueVolumeName(point.c_str()).c_str()));
    EXPECT_TRUE(Logged(logs, LM_WARNING,
                       "VolumeUtils::uniqueVolumeName: Unable to get the "
                       "unique volume name for mount point " +
                           point + ". OS Error: "));
  }
  // A plain folder and a missing path: nothing mounted, so true.
  EXPECT_TRUE(K::unmountVolume(point.c_str()));
  EXPECT_TRUE(K::unmountVolume(folder_.File("missing").c_str()));
  // Mounted again, the data is still there.
  ASSERT_TRUE(K::mountVolume(point.c_str(), ext4Name.c_str()));
  EXPECT_EQ("on ext4", TempFolder::Read(point + "/probe.txt"));
  EXPECT_TRUE(K::unmountVolume(point.c_str()));
  EXPECT_TRUE(K::unmountVolume(second.c_str()));
}

TEST_F(VolumeUtilsTest, MountFailures) {
  LogCapture logs;
  // A name that no device has.
  EXPECT_FALSE(K::mountVolume(folder_.File("a").c_str(),
                              "UUID=00000000-0000-0000-0000-000000000000"));
  EXPECT_TRUE(Logged(logs, LM_WARNING,
                     "VolumeUtils::mountVolume: Error setting up the volume "
                     "mount point. OS Error: "));
  // The folder cannot be made below a file.
  const std::string file = folder_.Write("file", "x");
  EXPECT_FALSE(K::mountVolume((file + "/sub").c_str(), "UUID=x"));
  EXPECT_TRUE(Logged(logs, LM_ERROR,
                     "VolumeUtils::mountVolume: Unable to create mount point "
                     "directory " +
                         file + "/sub/\n"));
  // A file system that is no block device occupies its folder too.
  EXPECT_EQ("", std::string(K::uniqueVolumeName("/proc").c_str()));
  EXPECT_FALSE(K::mountVolume("/proc", "UUID=x"));
}

// Listings from several threads at once see the same volumes.
TEST_F(VolumeUtilsTest, ListsFromSeveralThreads) {
  auto ext4 = Ext4(kExt4Uuid);
  if (!ext4) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string ext4Name = std::string("UUID=") + kExt4Uuid;
  std::vector<std::thread> threads;
  std::vector<int> missing(4, 0);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int k = 0; k < 10; ++k) {
        std::vector<ACE_CString> out;
        K::listVolumes(out, k % 2 == 0, true);
        if (!Contains(Strings(out), ext4Name)) ++missing[i];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(0, missing[i]) << i;
}

// Sixteen volumes at once, with the time of one listing reported.
TEST_F(VolumeUtilsTest, ListsSixteenVolumes) {
  std::vector<std::unique_ptr<LoopVolume>> volumes;
  std::vector<std::string> names;
  for (int i = 0; i < 16; ++i) {
    const std::string uuid = TestUuid(100 + i);
    auto v = Ext4(uuid);
    if (!v) GTEST_SKIP() << "not enough loop devices or no mkfs.ext4";
    volumes.push_back(std::move(v));
    names.push_back(std::string("UUID=") + uuid);
  }
  K::isSystemVolume("");  // the system volume's name is worked out once
  for (int round = 0; round < 3; ++round) {
    std::vector<ACE_CString> out;
    auto start = std::chrono::steady_clock::now();
    K::listVolumes(out, true, true);
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
    std::vector<std::string> listed = Strings(out);
    for (const std::string& n : names) EXPECT_TRUE(Contains(listed, n)) << n;
    RecordProperty("listVolumesMicroseconds" + std::to_string(round),
                   static_cast<int>(micros));
    std::printf("listVolumes of %zu volumes: %lld us\n", listed.size(),
                static_cast<long long>(micros));
  }
}

}  // namespace
