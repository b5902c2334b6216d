#include "common/os/volumeutils.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/forked.h"
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

std::vector<std::string> List(bool fixedOnly, bool excludeSystem) {
  std::vector<ACE_CString> out;
  K::listVolumes(out, fixedOnly, excludeSystem);
  return Strings(out);
}

bool Logged(const LogCapture& logs, ACE_Log_Priority priority,
            const std::string& start) {
  for (const auto& r : logs.records()) {
    if (r.priority == priority && r.text.compare(0, start.size(), start) == 0)
      return true;
  }
  return false;
}

// A command's output without trailing blanks.
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

// An 8 MB image made by `mkfs` on a free loop device, detached at the end.
class LoopVolume {
 public:
  LoopVolume(const std::string& image, const std::string& mkfs) {
    const std::string made = "truncate -s 8M '" + image + "' && " + mkfs +
                             " '" + image + "' >/dev/null 2>&1 && ";
    device_ = Run(made + "losetup -f --show '" + image + "' 2>/dev/null");
    if (device_.rfind("/dev/loop", 0) != 0) device_.clear();
  }
  ~LoopVolume() {
    if (ok()) std::system(("losetup -d " + device_ + " 2>/dev/null").c_str());
  }
  LoopVolume(const LoopVolume&) = delete;
  bool ok() const { return !device_.empty(); }
  const std::string& device() const { return device_; }
  std::string sysName() const { return device_.substr(5); }

 private:
  std::string device_;
};

// `body`'s findings ("ok" for none) in a child with a private mount
// namespace, after mounting `source` on `target`.
std::string AfterPrivateMount(const std::string& source,
                              const std::string& target, const char* type,
                              unsigned long flags,
                              const std::function<std::string()>& body) {
  return testsupport::RunForked([&] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount(source.c_str(), target.c_str(), type, flags, nullptr) != 0) {
      return std::string("setup: ") + std::strerror(errno);
    }
    const std::string found = body();
    return found.empty() ? std::string("ok") : found;
  });
}

// The system volume's name from the mount table and sysfs, "" when "/" is no
// block-device file system.
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

// Loop devices are machine-wide and ctest runs cases in parallel: each
// process gives its volumes UUIDs of its own.
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

class VolumeUtilsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root for loop devices";
    ASSERT_TRUE(folder_.ok());
  }

  // An ext4 volume named "UUID=<uuid>", null when none can be made.
  std::unique_ptr<LoopVolume> Ext4(const std::string& uuid) {
    auto v = std::make_unique<LoopVolume>(folder_.File(uuid + ".img"),
                                          "mkfs.ext4 -q -F -U " + uuid);
    return v->ok() ? std::move(v) : nullptr;
  }
  // A vfat volume with this process's volume id, named "UUID=XXXX-XXXX".
  std::unique_ptr<LoopVolume> Vfat(std::string* name) {
    char id[16];
    std::snprintf(id, sizeof id, "%08X", ProcessTag());
    *name = std::string("UUID=") + std::string(id, 4) + "-" + (id + 4);
    auto v = std::make_unique<LoopVolume>(folder_.File("vfat.img"),
                                          std::string("mkfs.vfat -i ") + id);
    return v->ok() ? std::move(v) : nullptr;
  }

  TempFolder folder_;
  const std::string ext4Name_ = "UUID=" + TestUuid(1);
};

TEST(VolumeRules, SimulatedVolumes) {
  TempFolder folder;
  const std::string base = folder.File("stacks");
  const std::pair<std::string, unsigned short> rows[] = {{base + "/", 2},
                                                         {base, 0}};
  for (const auto& r : rows) {
    SCOPED_TRACE(r.first + " " + std::to_string(r.second));
    std::vector<ACE_CString> out{"kept"};
    EXPECT_TRUE(K::listSimulatedVolumes(r.first.c_str(), out, r.second));
    std::vector<std::string> expected{"kept"};
    for (int i = 0; i < r.second; ++i)
      expected.push_back(base + "/volume00" + std::to_string(i));
    EXPECT_EQ(expected, Strings(out));
  }
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
  std::string lower = expected;  // names compare without regard to case
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_TRUE(K::isSystemVolume(lower.c_str()));
  EXPECT_TRUE(Logged(logs, LM_DEBUG,
                     "VolumeUtils::isSystemVolume: / is a system volume"));
  EXPECT_FALSE(K::isSystemVolume((expected + "x").c_str()));
}

TEST_F(VolumeUtilsTest, ListsVolumesByFlags) {
  auto ext4 = Ext4(TestUuid(1));
  std::string vfatName;
  auto vfat = Vfat(&vfatName);  // listed unmounted: vfat may lack a driver
  if (!ext4) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string system = ExpectedSystemVolume();
  for (bool fixedOnly : {false, true}) {
    for (bool excludeSystem : {false, true}) {
      SCOPED_TRACE(std::to_string(fixedOnly) + std::to_string(excludeSystem));
      std::vector<ACE_CString> out{"kept"};
      LogCapture logs;
      K::listVolumes(out, fixedOnly, excludeSystem);
      EXPECT_TRUE(
          Logged(logs, LM_DEBUG,
                 "VolumeIterator::next: Reached end of volume iteration\n"));
      std::vector<std::string> names = Strings(out);
      EXPECT_EQ("kept", names.front()) << "the list is appended to";
      EXPECT_TRUE(Contains(names, ext4Name_));  // loop devices are fixed
      if (vfat) {
        EXPECT_TRUE(Contains(names, vfatName));  // named by its volume id
        EXPECT_FALSE(Contains(names, vfat->device()));
      }
      std::sort(names.begin(), names.end());
      EXPECT_TRUE(std::adjacent_find(names.begin(), names.end()) == names.end())
          << "a volume listed twice";
      if (!system.empty()) {
        EXPECT_EQ(!excludeSystem, Contains(names, system));
      }
    }
  }
}

// No loop device is removable: a child bind-mounts "1" over the sysfs flag.
TEST_F(VolumeUtilsTest, RemovableMediaLeftOutOfFixedList) {
  const std::string removableName = "UUID=" + TestUuid(2);
  auto ext4 = Ext4(TestUuid(1));
  auto removable = Ext4(TestUuid(2));
  if (!ext4 || !removable) GTEST_SKIP() << "no loop device or mkfs.ext4";
  auto check = [&] {
    LogCapture logs;
    const auto fixed = List(true, false), all = List(false, false);
    std::string r;
    if (Contains(fixed, removableName)) r += "removable-in-fixed ";
    if (!Contains(fixed, ext4Name_)) r += "ext4-not-in-fixed ";
    if (!Contains(all, removableName)) r += "removable-not-in-all ";
    if (!Logged(logs, LM_DEBUG,
                "VolumeUtils::listVolumes: Not fixed media. Won't list it in "
                "volume list.\n"))
      r += "no-skip-log ";
    return r;
  };
  EXPECT_EQ("ok", AfterPrivateMount(
                      folder_.Write("removable", "1\n"),
                      "/sys/block/" + removable->sysName() + "/removable",
                      nullptr, MS_BIND, check));
}

// A failed start is not looked at: the empty name goes through the steps.
// A child hides every block device under a tmpfs.
TEST_F(VolumeUtilsTest, FailedStartPassesTheEmptyName) {
  auto check = [] {
    LogCapture logs;
    std::string r;
    if (List(false, false) != std::vector<std::string>{""})
      r += "all: not \"\" ";
    if (!List(true, false).empty()) r += "fixed: not empty ";
    for (const char* text :
         {"VolumeIterator::first: FindFirstVolume() failed. OS Error: ",
          "VolumeIterator::next: FindNextVolume() failed. OS Error: "}) {
      if (!Logged(logs, LM_ERROR, text)) r += std::string("no ") + text;
    }
    if (!Logged(logs, LM_DEBUG, "VolumeUtils::listVolumes: Iterating stack \n"))
      r += "no Iterating stack";
    return r;
  };
  EXPECT_EQ("ok",
            AfterPrivateMount("none", "/sys/class/block", "tmpfs", 0, check));
}

TEST_F(VolumeUtilsTest, MountsAndUnmounts) {
  const std::string otherName = "UUID=" + TestUuid(3);
  auto ext4 = Ext4(TestUuid(1));
  auto other = Ext4(TestUuid(3));
  if (!ext4 || !other) GTEST_SKIP() << "no loop device or mkfs.ext4";
  const std::string point = folder_.File("stacks/volume000");
  struct Unmount {  // whatever happens
    std::string point;
    ~Unmount() { ::umount2(point.c_str(), MNT_DETACH); }
  } unmount{point};

  ASSERT_TRUE(K::mountVolume(point.c_str(), ext4Name_.c_str()));
  EXPECT_EQ(ext4Name_, K::uniqueVolumeName((point + "/").c_str()).c_str());
  {
    LogCapture logs;
    std::string upper = ext4Name_;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    EXPECT_TRUE(K::mountVolume(point.c_str(), upper.c_str()));
    EXPECT_TRUE(Logged(logs, LM_DEBUG,
                       "VolumeUtils::mountVolume: " + point +
                           "/ is already mounted on " + upper));
    EXPECT_FALSE(K::mountVolume(point.c_str(), otherName.c_str()));
    EXPECT_TRUE(Logged(logs, LM_DEBUG,
                       "VolumeUtils::mountVolume: Cannot mount volume. " +
                           point + "/ is mounted on a different volume " +
                           ext4Name_));
  }
  EXPECT_EQ(ext4Name_, K::uniqueVolumeName(point.c_str()).c_str());

  std::ofstream(point + "/probe.txt") << "on ext4";
  const int fd = ::open((point + "/probe.txt").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(K::unmountVolume(point.c_str()));
  ::close(fd);
  EXPECT_TRUE(K::unmountVolume(point.c_str()));
  {
    LogCapture logs;
    EXPECT_EQ("", std::string(K::uniqueVolumeName(point.c_str()).c_str()));
    EXPECT_TRUE(Logged(logs, LM_WARNING,
                       "VolumeUtils::uniqueVolumeName: Unable to get the "
                       "unique volume name for mount point " +
                           point + ". OS Error: "));
  }
  EXPECT_TRUE(K::unmountVolume(folder_.File("missing").c_str()));
  ASSERT_TRUE(K::mountVolume(point.c_str(), ext4Name_.c_str()));
  EXPECT_EQ("on ext4", TempFolder::Read(point + "/probe.txt"));
  EXPECT_TRUE(K::unmountVolume(point.c_str()));
}

TEST_F(VolumeUtilsTest, MountFailures) {
  LogCapture logs;
  EXPECT_FALSE(K::mountVolume(folder_.File("a").c_str(),
                              "UUID=00000000-0000-0000-0000-000000000000"));
  EXPECT_TRUE(Logged(logs, LM_WARNING,
                     "VolumeUtils::mountVolume: Error setting up the volume "
                     "mount point. OS Error: "));
  const std::string file = folder_.Write("file", "x");
  EXPECT_FALSE(K::mountVolume((file + "/sub").c_str(), "UUID=x"));
  EXPECT_TRUE(Logged(logs, LM_ERROR,
                     "VolumeUtils::mountVolume: Unable to create mount point "
                     "directory " +
                         file + "/sub/\n"));
  EXPECT_FALSE(K::mountVolume("/proc", "UUID=x"));  // occupied, no device
}

TEST_F(VolumeUtilsTest, ListsManyVolumesFromSeveralThreads) {
  std::vector<std::unique_ptr<LoopVolume>> volumes;
  std::vector<std::string> names;
  for (unsigned i = 0; i < 8; ++i) {
    volumes.push_back(Ext4(TestUuid(100 + i)));
    if (!volumes.back()) GTEST_SKIP() << "not enough loop devices or mkfs";
    names.push_back("UUID=" + TestUuid(100 + i));
  }
  std::vector<std::thread> threads;
  std::vector<std::string> missing(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int k = 0; k < 5; ++k) {
        const std::vector<std::string> listed = List(k % 2 == 0, true);
        for (const std::string& n : names) {
          if (!Contains(listed, n)) missing[i] += n + " ";
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 4; ++i) EXPECT_EQ("", missing[i]) << i;
}

}  // namespace
