#include "common/os/cpuinfo.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/cpuinforules.h"

namespace {

std::string Output(const char* command) {
  std::string out;
  if (FILE* p = ::popen(command, "r")) {
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    ::pclose(p);
  }
  return out;
}

TEST(CPUInfoRules, Signature) {
  const struct {
    uint32_t eax;
    unsigned family, model, stepping;
  } rows[] = {
      {0x000506E3, 6, 94, 3},   // family 6: extended model in front
      {0x00B20F12, 26, 33, 2},  // family 0xF: both extended fields added
      {0x000F0542, 5, 4, 2},    // extended fields ignored below family 6
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.eax);
    const CPUInfoRules::Signature s = CPUInfoRules::DecodeSignature(r.eax);
    EXPECT_EQ(r.family, s.family);
    EXPECT_EQ(r.model, s.model);
    EXPECT_EQ(r.stepping, s.stepping);
  }
}

TEST(CPUInfoRules, BrandAndCpuList) {
  uint32_t regs[12];
  const char brand[49] = "       Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz";
  std::memcpy(regs, brand, 48);
  EXPECT_EQ("Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz",
            CPUInfoRules::DecodeBrand(regs));

  const struct {
    const char* text;
    std::vector<unsigned> cpus;
  } rows[] = {
      {"0-1,4,6-7\n", {0, 1, 4, 6, 7}},
      {"12", {12}},
      {"0-\n", {}},
      {"3-1\n", {}},
      {"0,\n", {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.text);
    EXPECT_EQ(r.cpus, CPUInfoRules::ParseCpuList(r.text));
  }
}

TEST(CPUInfoRules, ProcStatAndUsage) {
  const char* older =
      "cpu  100 0 100 800 0 0 0 0 0 0\n"
      "cpu0 90 0 10 0 0 0 0 0 0 0\n"
      "cpu2 10 0 90 800 0 0 0 0 0 0\n"
      "intr 12345 1 2\n"
      "ctxt 999\n";
  const char* newer =
      "cpu  300 50 150 1300 100 10 20 20 0 0\n"
      "cpu0 290 0 10 0 0 0 0 0 0 0\n"
      "cpu2 10 50 140 1300 100 10 20 20 0 0\n";
  const auto a = CPUInfoRules::ParseProcStat(older);
  const auto b = CPUInfoRules::ParseProcStat(newer);
  ASSERT_EQ(3u, a.size());
  ASSERT_EQ(3u, b.size());
  EXPECT_EQ(2, a[2].cpu);
  // Busy is user + nice + system + irq + softirq + steal; iowait is idle.
  EXPECT_DOUBLE_EQ(
      100.0 * (300 + 50 + 150 + 10 + 20 + 20 - 200) / (1950 - 1000),
      CPUInfoRules::Usage(a[0], b[0]));
  EXPECT_DOUBLE_EQ(100.0, CPUInfoRules::Usage(a[1], b[1]));
  EXPECT_DOUBLE_EQ(100.0 * 150 / 750, CPUInfoRules::Usage(a[2], b[2]));
  // No time passed, or counters that went back: no figure.
  EXPECT_EQ(-1, CPUInfoRules::Usage(a[1], a[1]));
  EXPECT_EQ(-1, CPUInfoRules::Usage(b[1], a[1]));
}

TEST(CPUInfo, MatchesProcCpuinfoAndLscpu) {
  const std::string cpuinfo = Output("cat /proc/cpuinfo");
  const std::string vendor = CPUInfoRules::CpuInfoValue(cpuinfo, "vendor_id");
  if (vendor.empty()) GTEST_SKIP() << "not an x86 processor";
  CPUInfo cpu;
  ASSERT_TRUE(CPUInfo::Read(cpu));
  EXPECT_EQ(vendor, cpu.vendor.c_str());
  EXPECT_EQ(CPUInfoRules::CpuInfoValue(cpuinfo, "cpu family"),
            std::to_string(cpu.family));
  EXPECT_EQ(CPUInfoRules::CpuInfoValue(cpuinfo, "model"),
            std::to_string(cpu.model));
  EXPECT_EQ(CPUInfoRules::CpuInfoValue(cpuinfo, "stepping"),
            std::to_string(cpu.stepping));
  EXPECT_EQ(CPUInfoRules::CpuInfoValue(cpuinfo, "model name"),
            CPUInfo::ModelName().c_str());

  std::istringstream flagText(CPUInfoRules::CpuInfoValue(cpuinfo, "flags"));
  std::set<std::string> kernel;
  for (std::string f; flagText >> f;) kernel.insert(f);
  const std::vector<std::string> ours = cpu.Features();
  ASSERT_FALSE(ours.empty());
  for (const std::string& f : ours) {
    SCOPED_TRACE(f);
    EXPECT_EQ(1u, kernel.count(f));
  }
  for (const char* f :
       {"fpu", "tsc", "mmx", "sse", "sse2", "pni", "ssse3", "sse4_1", "sse4_2",
        "avx", "avx2", "lm", "nx", "sse4a", "avx512f", "sha_ni"}) {
    SCOPED_TRACE(f);
    EXPECT_EQ(kernel.count(f) == 1, cpu.HasFeature(f));
  }
  EXPECT_FALSE(cpu.HasFeature(nullptr));

  const std::string parsable = Output("lscpu -p=cpu,core,socket 2>/dev/null");
  if (parsable.empty()) GTEST_SKIP() << "lscpu is not available";
  std::istringstream lines(parsable);
  std::set<std::pair<int, int>> cores;
  std::set<int> sockets;
  unsigned logical = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    int c = -1, core = -1, socket = -1;
    ASSERT_EQ(3, std::sscanf(line.c_str(), "%d,%d,%d", &c, &core, &socket));
    ++logical;
    cores.insert({socket, core});
    sockets.insert(socket);
  }
  EXPECT_EQ(logical, cpu.logicalCores);
  EXPECT_EQ(cores.size(), cpu.physicalCores);
  EXPECT_EQ(sockets.size(), cpu.packages);
}

TEST(CPUInfo, SpeedAgreesWithTheSystem) {
  const unsigned mhz = CPUInfo::SpeedMHz();
  const std::string summary = Output("lscpu 2>/dev/null");
  std::string reference = CPUInfoRules::CpuInfoValue(summary, "CPU max MHz");
  if (reference.empty())
    reference =
        CPUInfoRules::CpuInfoValue(Output("cat /proc/cpuinfo"), "cpu MHz");
  if (reference.empty()) GTEST_SKIP() << "the system reports no speed";
  const double want = std::stod(reference);
  EXPECT_NEAR(want, mhz, want * 0.05) << "reference " << reference;
}

TEST(CPUStats, ABusyCoreShowsBusy) {
  CPUStats stats;
  ASSERT_TRUE(stats.Sample());
  EXPECT_EQ(-1, stats.TotalUsage());  // one sample is no interval
  CPUInfo cpu;
  ASSERT_TRUE(CPUInfo::Read(cpu));

  // A thread pinned to the last CPU must show it nearly fully used in some
  // interval before the deadline.
  cpu_set_t mine;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof mine, &mine));
  int target = -1;
  for (int c = CPU_SETSIZE - 1; c >= 0 && target < 0; --c)
    if (CPU_ISSET(c, &mine)) target = c;
  ASSERT_GE(target, 0);
  std::atomic<bool> stop{false};
  std::thread spinner([&stop, target] {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(target, &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
    for (volatile unsigned long n = 0; !stop.load(std::memory_order_relaxed);)
      n = n + 1;
  });
  struct Join {
    std::atomic<bool>& stop;
    std::thread& thread;
    ~Join() { stop = true, thread.join(); }
  } join{stop, spinner};
  double best = -1, total = -1;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline && best < 90) {
    ASSERT_TRUE(stats.Sample());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(stats.Sample());
    best = std::max(best, stats.CoreUsage(static_cast<unsigned>(target)));
    total = stats.TotalUsage();
    ASSERT_GE(total, 0);
    ASSERT_LE(total, 100);
  }
  EXPECT_GE(best, 90) << "core " << target;
  EXPECT_GE(total, 90.0 / cpu.logicalCores);
  EXPECT_EQ(-1, stats.CoreUsage(100000));
}

}  // namespace
