#include "common/os/systeminfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/os/internal/systeminforules.h"

#include "support/logcapture.h"
#include "support/tempfolder.h"

namespace {

using SystemInfoRules::MemoryStatusReport;

// All figures distinct, so one taken from the wrong place shows.
MemoryStatusReport Report(uint64_t totalVirtualKB) {
  MemoryStatusReport r{};
  r.available = r.hasExtended = true;
  r.memoryLoad = 42;
  r.totalPhys = (uint64_t{5} << 40) + (uint64_t{3} << 10) + 1023;
  r.availPhys = uint64_t{5} << 30;
  r.totalPageFile = uint64_t{20} << 30;
  r.availPageFile = uint64_t{9} << 30;
  r.totalVirtual = totalVirtualKB << 10;
  r.availVirtual = uint64_t{1} << 30;
  r.legacyMemoryLoad = 7;
  r.legacyTotalPhys = 0xFFFFFFFF;
  r.legacyAvailPhys = 0x40000000;
  r.legacyTotalPageFile = 0x80000000;
  r.legacyAvailPageFile = 0x20000000;
  r.legacyTotalVirtual = 0x7FFE0000;  // 2 GiB less 128 KiB
  r.legacyAvailVirtual = 0x10000000;
  return r;
}

auto Fields(const SYSTEMINFOSTRUCT& r) {
  return std::make_tuple(r.memoryLoad, r.totalPhysKB, r.availPhysKB,
                         r.totalPageFileKB, r.availPageFileKB, r.totalVirtualKB,
                         r.availVirtualKB);
}

TEST(SystemInfoRules, MemoryRecord) {
  // Inside the band the total virtual figure is the older call's.
  const uint64_t kLegacyVirtualKB = 0x7FFE0000 >> 10;
  SYSTEMINFOSTRUCT rec{};
  for (uint64_t kb : {2097152ull, 2097153ull, 3145728ull, 3145729ull}) {
    ASSERT_TRUE(SystemInfoRules::ComputeMemoryRecord(Report(kb), &rec));
    EXPECT_EQ(kb == 2097152 || kb == 3145729 ? kb : kLegacyVirtualKB,
              rec.totalVirtualKB)
        << kb;
  }
  // The 5 TiB total wraps only in the 32-bit record.
  EXPECT_EQ(std::make_tuple(42u, (uint64_t{5} << 30) + 3, uint64_t{5} << 20,
                            uint64_t{20} << 20, uint64_t{9} << 20,
                            uint64_t{3145729}, uint64_t{1} << 20),
            Fields(rec));
  EXPECT_EQ(uint32_t{(1u << 30) + 3},
            SystemInfoRules::Truncate(rec).totalPhysKB);
  // Without the 64-bit call every figure is the older one.
  MemoryStatusReport r = Report(2097153);
  r.hasExtended = false;
  ASSERT_TRUE(SystemInfoRules::ComputeMemoryRecord(r, &rec));
  EXPECT_EQ(std::make_tuple(
                7u, uint64_t{0xFFFFFFFF >> 10}, uint64_t{0x40000000 >> 10},
                uint64_t{0x80000000 >> 10}, uint64_t{0x20000000 >> 10},
                kLegacyVirtualKB, uint64_t{0x10000000 >> 10}),
            Fields(rec));
  r.available = false;  // nothing read: the record stays as it was
  EXPECT_FALSE(SystemInfoRules::ComputeMemoryRecord(r, &rec));
  EXPECT_EQ(7u, rec.memoryLoad);
}

TEST(SystemInfoRules, MemoryLogRecord) {
  SystemInfoRules::MemoryFigures f{8, 3, 61, 0xFFFFFFFF, 2, 0, 0};
  testsupport::LogCapture log;
  SystemInfoRules::LogMemoryStatus(f, true, 4096 * 3, 10240);
  SystemInfoRules::LogMemoryStatus(f, false, 4096, 4096);
  const std::string machine =
      "Total memory is 8 Bytes\n"
      "Percentage of Memory currenly used is 61 percent\n"
      "Memory currently free 3 Bytes\n"
      "Total Virtual Memory is -1 Bytes\n"
      "Available Virtual Memory is 2 Bytes\n";
  ASSERT_EQ(2u, log.records().size());
  EXPECT_EQ(LM_DEBUG, log.records()[0].priority);
  EXPECT_EQ(machine +
                "Current Working Set is 12 KB\n"
                "Virtual Memory Usage is 10 KB\n" +
                machine,
            log.records()[0].text + log.records()[1].text);
}

TEST(SystemInfoRules, WindowsNameTable) {
  struct Row {
    uint32_t major, minor, platform;
    bool server;
    const char* expected;  // from a caller's "keep "
  } rows[] = {
      {0, 0, 2, false, "Not able to retrieve OS Name "},
      {3, 51, 0, false, "Microsoft Win32s "},
      {4, 10, 1, false, "Microsoft Windows 98 "},
      {6, 3, 2, true, "Windows Server 2012 R2 Ultimate Edition, 64-bit"},
      {6, 4, 2, false, "keep Ultimate Edition, 64-bit"},
      {10, 0, 2, true, "Windows Server 2016 Ultimate Edition, 64-bit"},
      {6, 1, 3, false, "keep "},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.major) + "." + std::to_string(r.minor) +
                 " platform " + std::to_string(r.platform));
    ACE_CString name("keep ");
    SystemInfoRules::ApplyWindowsName(
        {r.major, r.minor, r.platform, r.server, 1, true}, name);
    EXPECT_STREQ(r.expected, name.c_str());
  }
  EXPECT_STREQ("Web Server Edition, 64-bit",
               SystemInfoRules::EditionText(0x11, true).c_str());
  EXPECT_STREQ("OS Type is undefined, 32-bit",
               SystemInfoRules::EditionText(0xABCD, false).c_str());
}

TEST(SystemInfoRules, LinuxNameFromOsRelease) {
  struct Row {
    const char* osRelease;
    const char* expected;
  } rows[] = {
      {"# comment\nPRETTY_NAME='Single Quoted $X'\n", "Single Quoted $X "},
      {"PRETTY_NAME=\"Say \\\"hi\\\" \\\\o/\"  \r\n", "Say \"hi\" \\o/ "},
      {"PRETTY_NAME=\nNAME=Alpine\nVERSION=3.19\n", "Alpine 3.19 "},
      {nullptr, "Linux 6.1.0-test "},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.osRelease ? r.osRelease : "(none)");
    EXPECT_STREQ(
        r.expected,
        SystemInfoRules::LinuxName(r.osRelease, "Linux", "6.1.0-test").c_str());
  }
}

unsigned long long MemTotalKB() {
  std::ifstream in("/proc/meminfo");
  std::string key;
  unsigned long long kb = 0;
  in >> key >> kb;
  return key == "MemTotal:" ? kb : 0;
}

TEST(SystemInfo, MachineMemoryFigures) {
  unsigned total = 0, avail = 0, load = 101, vtotal = 0, vavail = 0, ptotal = 0,
           pavail = 0;
  SystemInfo::SystemMemoryInfoEx(total, avail, load, vtotal, vavail, ptotal,
                                 pavail);
  EXPECT_EQ(MemTotalKB(), total);
  EXPECT_TRUE(avail <= total && load <= 100 && ptotal >= total &&
              pavail <= ptotal && pavail >= avail && vavail <= vtotal);

  SYSTEMINFOSTRUCT rec{};
  SystemInfo::SystemMemoryInfoEx(&rec);
  EXPECT_EQ(std::make_tuple(uint64_t{total}, uint64_t{ptotal}, uint64_t{0}),
            std::make_tuple(rec.totalPhysKB, rec.totalPageFileKB,
                            rec.availExtendedVirtualKB));
}

unsigned long long VmSizeBytes() {
  unsigned long long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<unsigned long long>(::getpagesize());
}

TEST(SystemInfo, AddressSpaceFollowsTheLimit) {
  struct rlimit saved;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_AS, &saved));
  if (saved.rlim_max != RLIM_INFINITY)
    GTEST_SKIP() << "the hard address-space limit is already set";
  unsigned total = 0, avail = 0, load = 0, vtotal = 0, vavail = 0;
  if (saved.rlim_cur == RLIM_INFINITY) {
    SystemInfo::SystemMemoryInfo(total, avail, load, vtotal, vavail);
    EXPECT_EQ(0xFFFFFFFFu, vtotal);  // 128 TiB clamped to 32-bit KB
  }
  // A soft limit 256 MiB above the present size.
  const unsigned long long limit = VmSizeBytes() + (256ull << 20);
  struct rlimit rl = saved;
  rl.rlim_cur = limit;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &rl));
  SystemInfo::SystemMemoryInfo(total, avail, load, vtotal, vavail);
  const unsigned long long availKB = SystemInfo::AvailableVirtualMemoryKB();
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &saved));
  // Under a sanitizer the present size alone is terabytes: clamped.
  EXPECT_EQ(std::min(limit >> 10, 0xFFFFFFFFull), vtotal);
  for (unsigned long long kb : {0ull + vavail, availKB}) {
    EXPECT_LE(kb, 256u << 10);
    EXPECT_GE(kb, 192u << 10);
  }
}

TEST(SystemInfo, ProcessMemoryGrowsWithUse) {
  unsigned long ws0 = 1, pf0 = 1;
  ASSERT_TRUE(SystemInfo::GetCurrentMemoryUsage(ws0, pf0));
  const size_t size = 64u << 20;
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, p);
  std::memset(p, 1, size);
  unsigned long ws1 = 0, pf1 = 0;
  bool ok = SystemInfo::GetCurrentMemoryUsage(ws1, pf1);
  ::munmap(p, size);
  ASSERT_TRUE(ok);
  EXPECT_GE(ws1, ws0 + (48u << 20));
  EXPECT_GE(pf1, pf0 + (60u << 20));
}

TEST(SystemInfo, DiskFigures) {
  testsupport::TempFolder dir;
  ASSERT_TRUE(dir.ok());
  ACE_UINT64 total = 0, free = 0;
  SystemInfo::DiskInfo(dir.path().c_str(), total, free);
  std::filesystem::space_info space = std::filesystem::space(dir.path());
  EXPECT_EQ(space.capacity, total);
  EXPECT_LE(free, total);
  // Other writers move free space a little.
  EXPECT_LE(
      free > space.available ? free - space.available : space.available - free,
      64ull << 20);

  // A failure leaves the outputs alone and logs why.
  total = 11, free = 22;
  testsupport::LogCapture log;
  SystemInfo::DiskInfo(dir.File("missing").c_str(), total, free);
  EXPECT_EQ(11u + 22u * 100, total + free * 100);
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_ERROR, log.records()[0].priority);
  EXPECT_EQ(
      0u, log.records()[0].text.find(
              "SystemInfo::DiskInfo: GetDiskFreeSpaceEx() failed. OS Error: "));
}

TEST(SystemInfo, ApplicationVersion) {
  EXPECT_STREQ("1.0.0",
               SystemInfo::ApplicationVersion(COM_LIBRARY_FILE).c_str());
  // An ELF file without a package note.
  testsupport::LogCapture log;
  EXPECT_STREQ("", SystemInfo::ApplicationVersion("/proc/self/exe").c_str());
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_ERROR, log.records()[0].priority);
  EXPECT_NE(std::string::npos, log.records()[0].text.find(
                                   "Unable to get file version info size."));
}

std::string FirstLine(const char* command) {
  std::string out;
  if (FILE* p = ::popen(command, "r")) {
    char buf[1024];
    if (std::fgets(buf, sizeof buf, p)) out = buf;
    ::pclose(p);
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// The exit code of `body` run in a child; -1 if it did not exit.
template <typename F>
int InChild(F body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
    return -1;
  return WEXITSTATUS(status);
}

constexpr int kNoPrivilege = 77;

TEST(SystemInfo, ProcessorLine) {
  CPUInfo cpu;
  ASSERT_TRUE(SystemInfo::GetCPUInfo(cpu));
  const std::string line = SystemInfo::ProcessorInfo().c_str();
  EXPECT_EQ(0u, line.find(std::string(CPUInfo::ModelName().c_str()) + ", " +
                          cpu.vendor.c_str() + " family " +
                          std::to_string(cpu.family)))
      << line;
  EXPECT_NE(std::string::npos,
            line.find(std::to_string(cpu.physicalCores) + " cores (" +
                      std::to_string(cpu.logicalCores) + " logical), "))
      << line;
  EXPECT_EQ(line.size() - 4, line.rfind(" MHz")) << line;
}

TEST(SystemInfo, OSVersion) {
  struct utsname u;
  ASSERT_EQ(0, ::uname(&u));
  const std::string distro = FirstLine(
      "sh -c '. /etc/os-release 2>/dev/null || . /usr/lib/os-release; "
      "echo \"$ID${VERSION_ID:+ $VERSION_ID}\"'");
  std::string want = std::string(u.sysname) + " " + u.release;
  if (!distro.empty()) want += ", " + distro;
  EXPECT_EQ(want, SystemInfo::OSVersion().c_str());
}

TEST(SystemInfo, IPAddressInANetworkOfItsOwn) {
  const int code = InChild([] {
    if (::unshare(CLONE_NEWNET) != 0) return kNoPrivilege;
    ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);
    if (SystemInfo::IPAddress() != "") return 10;  // nothing but lo, down
    // A down interface first, then an up one (veth: no dummy links here).
    if (std::system("ip link set lo up && "
                    "ip link add k0 type veth peer name k0p && "
                    "ip addr add 10.88.0.1/24 dev k0 && "
                    "ip link add k1 type veth peer name k1p && "
                    "ip addr add 10.77.0.5/24 dev k1 && "
                    "ip link set k1 up") != 0)
      return 11;
    if (SystemInfo::IPAddress() != "10.77.0.5") return 12;
    if (std::system("ip link set k0 up") != 0) return 13;
    if (SystemInfo::IPAddress() != "10.88.0.1") return 14;
    return 0;
  });
  if (code == kNoPrivilege) GTEST_SKIP() << "no privilege for a namespace";
  EXPECT_EQ(0, code);
}

TEST(SystemInfo, SetMachineNameInAUtsNamespaceOfItsOwn) {
  const int code = InChild([] {
    if (::unshare(CLONE_NEWUTS) != 0) return kNoPrivilege;
    ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);
    const std::string longest(64, 'a');
    const struct {
      std::string name;
      bool ok;
    } rows[] = {
        {"pacs.example.org", true}, {longest, true},
        {longest + "a", false},     {"", false},
        {".leading", false},        {"under_score", false},
    };
    int row = 0;
    for (const auto& r : rows) {
      char before[256] = {0}, after[256] = {0};
      ::gethostname(before, sizeof before);
      errno = 0;
      const bool done = SystemInfo::SetMachineName(r.name.c_str());
      ::gethostname(after, sizeof after);
      if (done != r.ok) return 20 + row;
      if (r.ok && r.name != after) return 40 + row;
      if (!r.ok && (errno != EINVAL || std::strcmp(before, after) != 0))
        return 60 + row;
      ++row;
    }
    return SystemInfo::SetMachineName(nullptr) ? 99 : 0;
  });
  if (code == kNoPrivilege) GTEST_SKIP() << "no privilege for a namespace";
  EXPECT_EQ(0, code) << "20+row: result, 40+row: name, 60+row: errno";
}

}  // namespace
