#include "common/os/systeminfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <errno.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/os/internal/systeminforules.h"

#include "support/logcapture.h"

namespace {

using SystemInfoRules::MemoryStatusReport;

MemoryStatusReport Report(uint64_t totalVirtualKB) {
  MemoryStatusReport r{};
  r.available = r.hasExtended = true;
  r.memoryLoad = 42;
  r.totalPhys = (uint64_t{16} << 30) + 1023;  // the odd bytes are dropped
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

TEST(SystemInfoRules, VirtualMemoryQuirkBand) {
  struct Row {
    uint64_t reportedKB;
    uint64_t expectedKB;
  } rows[] = {
      {2097152, 2097152},           // 2 GiB: kept
      {2097153, 0x7FFE0000 >> 10},  // first replaced figure
      {2621440, 0x7FFE0000 >> 10},
      {3145728, 0x7FFE0000 >> 10},  // last replaced figure
      {3145729, 3145729},           // kept
      {0xFFFFFFFF, 0xFFFFFFFF},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.reportedKB);
    SYSTEMINFOSTRUCT rec{};
    ASSERT_TRUE(
        SystemInfoRules::ComputeMemoryRecord(Report(r.reportedKB), &rec));
    EXPECT_EQ(r.expectedKB, rec.totalVirtualKB);
    // Only the total virtual figure is touched.
    EXPECT_EQ(42u, rec.memoryLoad);
    EXPECT_EQ(uint64_t{16} << 20, rec.totalPhysKB);
    EXPECT_EQ(uint64_t{5} << 20, rec.availPhysKB);
    EXPECT_EQ(uint64_t{20} << 20, rec.totalPageFileKB);
    EXPECT_EQ(uint64_t{9} << 20, rec.availPageFileKB);
    EXPECT_EQ(uint64_t{1} << 20, rec.availVirtualKB);
  }
}

TEST(SystemInfoRules, WithoutTheExtendedCallAllFiguresAreTheOlderOnes) {
  MemoryStatusReport r = Report(2097153);
  r.hasExtended = false;
  SYSTEMINFOSTRUCT rec{};
  ASSERT_TRUE(SystemInfoRules::ComputeMemoryRecord(r, &rec));
  SystemInfoRules::MemoryFigures f = SystemInfoRules::Truncate(rec);
  EXPECT_EQ(7u, f.memoryLoad);
  EXPECT_EQ(0xFFFFFFFFu >> 10, f.totalPhysKB);
  EXPECT_EQ(0x40000000u >> 10, f.availPhysKB);
  EXPECT_EQ(0x80000000u >> 10, f.totalPageFileKB);
  EXPECT_EQ(0x20000000u >> 10, f.availPageFileKB);
  EXPECT_EQ(0x7FFE0000u >> 10, f.totalVirtualKB);
  EXPECT_EQ(0x10000000u >> 10, f.availVirtualKB);

  SYSTEMINFOSTRUCT untouched{};
  untouched.totalPhysKB = 99;
  r.available = false;
  EXPECT_FALSE(SystemInfoRules::ComputeMemoryRecord(r, &untouched));
  EXPECT_EQ(99u, untouched.totalPhysKB);
}

TEST(SystemInfoRules, ThirtyTwoBitFiguresWrap) {
  MemoryStatusReport r = Report(1);
  r.totalPhys = (uint64_t{5} << 40) + (uint64_t{3} << 10);  // 5 TiB + 3 KB
  SYSTEMINFOSTRUCT rec{};
  ASSERT_TRUE(SystemInfoRules::ComputeMemoryRecord(r, &rec));
  EXPECT_EQ((uint64_t{5} << 30) + 3, rec.totalPhysKB);
  EXPECT_EQ(uint32_t{(1u << 30) + 3},
            SystemInfoRules::Truncate(rec).totalPhysKB);
}

TEST(SystemInfoRules, MemoryLogRecord) {
  SystemInfoRules::MemoryFigures f{8, 3, 61, 0xFFFFFFFF, 2, 0, 0};
  testsupport::LogCapture log;
  SystemInfoRules::LogMemoryStatus(f, true, 4096 * 3, 10240);
  SystemInfoRules::LogMemoryStatus(f, false, 4096, 4096);
  ASSERT_EQ(2u, log.records().size());
  EXPECT_EQ(LM_DEBUG, log.records()[0].priority);
  EXPECT_EQ(
      "Total memory is 8 Bytes\n"
      "Percentage of Memory currenly used is 61 percent\n"
      "Memory currently free 3 Bytes\n"
      "Total Virtual Memory is -1 Bytes\n"
      "Available Virtual Memory is 2 Bytes\n"
      "Current Working Set is 12 KB\n"
      "Virtual Memory Usage is 10 KB\n",
      log.records()[0].text);
  EXPECT_EQ(
      "Total memory is 8 Bytes\n"
      "Percentage of Memory currenly used is 61 percent\n"
      "Memory currently free 3 Bytes\n"
      "Total Virtual Memory is -1 Bytes\n"
      "Available Virtual Memory is 2 Bytes\n",
      log.records()[1].text);
}

TEST(SystemInfoRules, WindowsNameTable) {
  struct Row {
    uint32_t major, minor, platform;
    bool server;
    const char* expected;  // from a caller's "keep "
  } rows[] = {
      {0, 0, 2, false, "Not able to retrieve OS Name "},
      {0, 0, 7, false, "Not able to retrieve OS Name "},
      {3, 51, 0, false, "Microsoft Win32s "},
      {3, 95, 1, false, "Microsoft Windows 95 "},
      {4, 0, 1, false, "Microsoft Windows 95 "},
      {4, 10, 1, false, "Microsoft Windows 98 "},
      {5, 0, 1, false, "Microsoft Windows 98 "},
      {0, 5, 2, true, "Microsoft Windows NT "},
      {4, 0, 2, true, "Microsoft Windows NT "},
      {5, 0, 2, true, "Microsoft Windows 2000 "},
      {5, 1, 2, false, "Microsoft Windows XP "},
      {5, 2, 2, true, "keep "},
      {6, 0, 2, false, "Windows Vista Ultimate Edition, 64-bit"},
      {6, 0, 2, true, "Windows Server 2008 Ultimate Edition, 64-bit"},
      {6, 1, 2, false, "Windows 7 Ultimate Edition, 64-bit"},
      {6, 1, 2, true, "Windows Server 2008 R2 Ultimate Edition, 64-bit"},
      {6, 2, 2, false, "Windows 8 Ultimate Edition, 64-bit"},
      {6, 2, 2, true, "Windows Server 2012 Ultimate Edition, 64-bit"},
      {6, 3, 2, false, "Windows 8.1 Ultimate Edition, 64-bit"},
      {6, 3, 2, true, "Windows Server 2012 R2 Ultimate Edition, 64-bit"},
      {6, 4, 2, false, "keep Ultimate Edition, 64-bit"},
      {10, 0, 2, false, "Windows 10 Ultimate Edition, 64-bit"},
      {10, 0, 2, true, "Windows Server 2016 Ultimate Edition, 64-bit"},
      {10, 1, 2, true, "keep Ultimate Edition, 64-bit"},
      {7, 0, 2, false, "keep "},
      {9, 9, 2, false, "keep "},
      {11, 0, 2, false, "keep "},
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
}

TEST(SystemInfoRules, EditionTexts) {
  struct Row {
    uint32_t product;
    bool is64;
    const char* expected;
  } rows[] = {
      {0x30, false, "Professional, 32-bit"},
      {0x03, true, "Home Premium Edition, 64-bit"},
      {0x0A, true, "Enterprise Edition, 64-bit"},
      {0x0C, false, "Datacenter Edition (core installation), 32-bit"},
      {0x0F, true, "Enterprise Edition for Itanium-based Systems, 64-bit"},
      {0x19, true, "Small Business Server Premium Edition, 64-bit"},
      {0x11, false, "Web Server Edition, 32-bit"},
      {0x00, true, "OS Type is undefined, 64-bit"},
      {0xABCD, false, "OS Type is undefined, 32-bit"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.product);
    EXPECT_STREQ(r.expected,
                 SystemInfoRules::EditionText(r.product, r.is64).c_str());
  }
}

TEST(SystemInfoRules, LinuxNameFromOsRelease) {
  struct Row {
    const char* osRelease;
    const char* expected;
  } rows[] = {
      {"NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 "
       "(bookworm)\"\nVERSION=\"12 (bookworm)\"\n",
       "Debian GNU/Linux 12 (bookworm) "},
      {"# comment\nPRETTY_NAME='Single Quoted $X'\n", "Single Quoted $X "},
      {"PRETTY_NAME=\"Say \\\"hi\\\" \\\\o/\"  \r\n", "Say \"hi\" \\o/ "},
      {"PRETTY_NAME=\nNAME=Alpine\nVERSION=3.19\n", "Alpine 3.19 "},
      {"NAME=Plain\n", "Plain "},
      {"ID=x\n", "Linux 6.1.0-test "},
      {nullptr, "Linux 6.1.0-test "},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.osRelease ? r.osRelease : "(none)");
    EXPECT_STREQ(
        r.expected,
        SystemInfoRules::LinuxName(r.osRelease, "Linux", "6.1.0-test").c_str());
  }
  EXPECT_STREQ("Linux ", SystemInfoRules::LinuxName(nullptr, "", "").c_str());
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
  EXPECT_GT(avail, 0u);
  EXPECT_LE(avail, total);
  EXPECT_LE(load, 100u);
  EXPECT_GE(ptotal, total);
  EXPECT_LE(pavail, ptotal);
  EXPECT_GE(pavail, avail);
  EXPECT_LE(vavail, vtotal);

  unsigned t2 = 0, a2 = 0, l2 = 0, vt2 = 0, va2 = 0;
  SystemInfo::SystemMemoryInfo(t2, a2, l2, vt2, va2);
  EXPECT_EQ(total, t2);
  EXPECT_EQ(vtotal, vt2);

  SYSTEMINFOSTRUCT rec{};
  SystemInfo::SystemMemoryInfoEx(&rec);
  SystemInfo::SystemMemoryInfoEx(nullptr);  // ignored
  EXPECT_EQ(total, rec.totalPhysKB);
  EXPECT_EQ(ptotal, rec.totalPageFileKB);
  EXPECT_EQ(0u, rec.availExtendedVirtualKB);
}

unsigned long long VmSizeBytes() {
  unsigned long long pages = 0;
  FILE* f = std::fopen("/proc/self/statm", "r");
  if (f) {
    if (std::fscanf(f, "%llu", &pages) != 1) pages = 0;
    std::fclose(f);
  }
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
  // A soft limit 256 MiB above the present size: no allocation fails.
  const unsigned long long limit = VmSizeBytes() + (256ull << 20);
  struct rlimit rl = saved;
  rl.rlim_cur = limit;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &rl));
  SystemInfo::SystemMemoryInfo(total, avail, load, vtotal, vavail);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &saved));
  const unsigned long long limitKB = limit >> 10;
  if (limitKB > 0xFFFFFFFFull) {
    EXPECT_EQ(0xFFFFFFFFu, vtotal);
  } else {
    EXPECT_EQ(limitKB, vtotal);
  }
  EXPECT_LE(vavail, 256u << 10);
  EXPECT_GE(vavail, 192u << 10);
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

TEST(SystemInfo, LogMemoryStatusWritesSevenLines) {
  testsupport::LogCapture log;
  SystemInfo::LogMemoryStatus();
  ASSERT_EQ(1u, log.records().size());
  const std::string& text = log.records()[0].text;
  EXPECT_EQ(7, std::count(text.begin(), text.end(), '\n')) << text;
  unsigned total = 0, avail = 0, load = 0, vtotal = 0, vavail = 0;
  SystemInfo::SystemMemoryInfo(total, avail, load, vtotal, vavail);
  EXPECT_EQ(0u, text.find("Total memory is " +
                          std::to_string(static_cast<int>(total)) + " Bytes\n"))
      << text;
}

class SystemInfoDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "com-sysinfo-XXXXXX")
            .string();
    ASSERT_NE(nullptr, mkdtemp(tmpl.data()));
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string dir_;
};

TEST_F(SystemInfoDisk, TotalAndCallerFreeBytes) {
  ACE_UINT64 total = 0, free = 0;
  SystemInfo::DiskInfo(dir_.c_str(), total, free);
  std::filesystem::space_info space = std::filesystem::space(dir_);
  EXPECT_EQ(space.capacity, total);
  EXPECT_GT(total, 0u);
  EXPECT_LE(free, total);
  // Free space moves a little while other programs write; allow 64 MiB.
  EXPECT_LE(
      free > space.available ? free - space.available : space.available - free,
      64ull << 20);
}

TEST_F(SystemInfoDisk, FailureLeavesOutputsAndLogs) {
  ACE_UINT64 total = 11, free = 22;
  testsupport::LogCapture log;
  SystemInfo::DiskInfo((dir_ + "/missing").c_str(), total, free);
  EXPECT_EQ(11u, total);
  EXPECT_EQ(22u, free);
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_ERROR, log.records()[0].priority);
  EXPECT_EQ(
      0u, log.records()[0].text.find(
              "SystemInfo::DiskInfo: GetDiskFreeSpaceEx() failed. OS Error: "));
}

TEST(SystemInfo, OSNameEndsWithOneBlank) {
  ACE_CString name("caller's text");
  SystemInfo::OSName(name);
  ASSERT_GE(name.length(), 2u);
  EXPECT_EQ(' ', name[name.length() - 1]);
  EXPECT_NE(' ', name[name.length() - 2]);
  EXPECT_EQ(ACE_CString::npos, name.find("caller's text"));
}

TEST_F(SystemInfoDisk, ApplicationVersion) {
  EXPECT_STREQ("1.0.0",
               SystemInfo::ApplicationVersion(COM_LIBRARY_FILE).c_str());
  struct Row {
    std::string path;
    const char* message;
  } rows[] = {
      {dir_ + "/missing.so", "Unable to get file version info size."},
      {"/proc/self/exe", "Unable to get file version info size."},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path);
    testsupport::LogCapture log;
    EXPECT_STREQ("", SystemInfo::ApplicationVersion(r.path.c_str()).c_str());
    ASSERT_EQ(1u, log.records().size());
    EXPECT_EQ(LM_ERROR, log.records()[0].priority);
    EXPECT_NE(std::string::npos, log.records()[0].text.find(r.message));
  }
}

}  // namespace
