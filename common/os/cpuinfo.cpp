#include "common/os/cpuinfo.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

#include "common/base/comlog.h"
#include "common/os/internal/cpuinforules.h"

namespace CPUInfoRules {

Signature DecodeSignature(uint32_t eax) {
  const unsigned baseFamily = (eax >> 8) & 0xF;
  const unsigned baseModel = (eax >> 4) & 0xF;
  Signature s;
  s.stepping = eax & 0xF;
  s.family = baseFamily;
  if (baseFamily == 0xF) s.family += (eax >> 20) & 0xFF;
  s.model = baseModel;
  if (baseFamily == 0x6 || baseFamily == 0xF)
    s.model += ((eax >> 16) & 0xF) << 4;
  return s;
}

std::string DecodeBrand(const uint32_t regs[12]) {
  char text[49];
  std::memcpy(text, regs, 48);
  text[48] = '\0';
  std::string s(text);
  const size_t first = s.find_first_not_of(' ');
  if (first == std::string::npos) return std::string();
  const size_t last = s.find_last_not_of(' ');
  return s.substr(first, last - first + 1);
}

std::vector<unsigned> ParseCpuList(const std::string& text) {
  std::vector<unsigned> cpus;
  const char* p = text.c_str();
  while (*p != '\0' && *p != '\n') {
    char* end = nullptr;
    if (*p < '0' || *p > '9') return {};
    unsigned long first = std::strtoul(p, &end, 10);
    unsigned long last = first;
    p = end;
    if (*p == '-') {
      ++p;
      if (*p < '0' || *p > '9') return {};
      last = std::strtoul(p, &end, 10);
      p = end;
      if (last < first || last - first > 65535) return {};
    }
    for (unsigned long c = first; c <= last; ++c)
      cpus.push_back(static_cast<unsigned>(c));
    if (*p == ',') {
      ++p;
      if (*p == '\0' || *p == '\n') return {};
    } else if (*p != '\0' && *p != '\n') {
      return {};
    }
  }
  return cpus;
}

std::string CpuInfoValue(const std::string& text, const char* key) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t'))
      name.pop_back();
    if (name != key) continue;
    size_t start = colon + 1;
    while (start < line.size() && line[start] == ' ') ++start;
    return line.substr(start);
  }
  return std::string();
}

std::vector<CPUStats::Times> ParseProcStat(const std::string& text) {
  std::vector<CPUStats::Times> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 3, "cpu") != 0) continue;
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    CPUStats::Times t{-1, 0, 0};
    if (name.size() > 3) {
      char* end = nullptr;
      const unsigned long n = std::strtoul(name.c_str() + 3, &end, 10);
      if (*end != '\0' || n > 1u << 20) continue;
      t.cpu = static_cast<int>(n);
    }
    // user nice system idle iowait irq softirq steal; guest time is already
    // inside user and nice.
    ACE_UINT64 v[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    int got = 0;
    while (got < 8 && (fields >> v[got])) ++got;
    if (got < 4) continue;
    t.total = v[0] + v[1] + v[2] + v[3] + v[4] + v[5] + v[6] + v[7];
    t.busy = t.total - v[3] - v[4];
    out.push_back(t);
  }
  return out;
}

double Usage(const CPUStats::Times& older, const CPUStats::Times& newer) {
  if (newer.total <= older.total || newer.busy < older.busy) return -1;
  const double total = static_cast<double>(newer.total - older.total);
  const double busy = static_cast<double>(newer.busy - older.busy);
  const double pct = busy * 100.0 / total;
  return pct > 100.0 ? 100.0 : pct;
}

}  // namespace CPUInfoRules

namespace {

// Feature flags by their /proc/cpuinfo names. rdseed is left out: the
// kernel withholds it on parts whose RDSEED is faulty, which cpuid alone
// cannot tell.
enum Reg { k1Ecx, k1Edx, k7Ebx, k7Ecx, k7Edx, kE1Ecx, kE1Edx };
const struct {
  const char* name;
  Reg reg;
  unsigned bit;
} kFeatures[] = {
    {"fpu", k1Edx, 0},
    {"vme", k1Edx, 1},
    {"de", k1Edx, 2},
    {"pse", k1Edx, 3},
    {"tsc", k1Edx, 4},
    {"msr", k1Edx, 5},
    {"pae", k1Edx, 6},
    {"mce", k1Edx, 7},
    {"cx8", k1Edx, 8},
    {"apic", k1Edx, 9},
    {"sep", k1Edx, 11},
    {"mtrr", k1Edx, 12},
    {"pge", k1Edx, 13},
    {"mca", k1Edx, 14},
    {"cmov", k1Edx, 15},
    {"pat", k1Edx, 16},
    {"pse36", k1Edx, 17},
    {"clflush", k1Edx, 19},
    {"mmx", k1Edx, 23},
    {"fxsr", k1Edx, 24},
    {"sse", k1Edx, 25},
    {"sse2", k1Edx, 26},
    {"ht", k1Edx, 28},
    {"pni", k1Ecx, 0},
    {"pclmulqdq", k1Ecx, 1},
    {"ssse3", k1Ecx, 9},
    {"fma", k1Ecx, 12},
    {"cx16", k1Ecx, 13},
    {"sse4_1", k1Ecx, 19},
    {"sse4_2", k1Ecx, 20},
    {"movbe", k1Ecx, 22},
    {"popcnt", k1Ecx, 23},
    {"aes", k1Ecx, 25},
    {"xsave", k1Ecx, 26},
    {"avx", k1Ecx, 28},
    {"f16c", k1Ecx, 29},
    {"rdrand", k1Ecx, 30},
    {"hypervisor", k1Ecx, 31},
    {"fsgsbase", k7Ebx, 0},
    {"bmi1", k7Ebx, 3},
    {"avx2", k7Ebx, 5},
    {"smep", k7Ebx, 7},
    {"bmi2", k7Ebx, 8},
    {"erms", k7Ebx, 9},
    {"invpcid", k7Ebx, 10},
    {"avx512f", k7Ebx, 16},
    {"avx512dq", k7Ebx, 17},
    {"adx", k7Ebx, 19},
    {"smap", k7Ebx, 20},
    {"clflushopt", k7Ebx, 23},
    {"clwb", k7Ebx, 24},
    {"avx512cd", k7Ebx, 28},
    {"sha_ni", k7Ebx, 29},
    {"avx512bw", k7Ebx, 30},
    {"avx512vl", k7Ebx, 31},
    {"avx512vbmi", k7Ecx, 1},
    {"gfni", k7Ecx, 8},
    {"vaes", k7Ecx, 9},
    {"vpclmulqdq", k7Ecx, 10},
    {"avx512_vnni", k7Ecx, 11},
    {"avx512_bitalg", k7Ecx, 12},
    {"rdpid", k7Ecx, 22},
    {"fsrm", k7Edx, 4},
    {"lahf_lm", kE1Ecx, 0},
    {"abm", kE1Ecx, 5},
    {"sse4a", kE1Ecx, 6},
    {"3dnowprefetch", kE1Ecx, 8},
    {"syscall", kE1Edx, 11},
    {"nx", kE1Edx, 20},
    {"pdpe1gb", kE1Edx, 26},
    {"rdtscp", kE1Edx, 27},
    {"lm", kE1Edx, 29},
};

ACE_UINT32 Register(const CPUInfo& c, Reg r) {
  switch (r) {
    case k1Ecx:
      return c.leaf1Ecx;
    case k1Edx:
      return c.leaf1Edx;
    case k7Ebx:
      return c.leaf7Ebx;
    case k7Ecx:
      return c.leaf7Ecx;
    case k7Edx:
      return c.leaf7Edx;
    case kE1Ecx:
      return c.ext1Ecx;
    case kE1Edx:
      return c.ext1Edx;
  }
  return 0;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::string();
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// cpuid; false when the leaf is beyond what the processor offers.
bool Cpuid(unsigned leaf, unsigned sub, unsigned r[4]) {
#if defined(__x86_64__) || defined(__i386__)
  if (__get_cpuid_max(leaf & 0x80000000u, nullptr) < leaf) return false;
  __cpuid_count(leaf, sub, r[0], r[1], r[2], r[3]);
  return true;
#else
  (void)leaf;
  (void)sub;
  (void)r;
  return false;
#endif
}

void ReadCpuid(CPUInfo& out) {
  unsigned r[4];
  if (!Cpuid(0, 0, r)) return;
  char vendor[13];
  std::memcpy(vendor, &r[1], 4);
  std::memcpy(vendor + 4, &r[3], 4);
  std::memcpy(vendor + 8, &r[2], 4);
  vendor[12] = '\0';
  out.vendor = vendor;
  if (Cpuid(1, 0, r)) {
    const CPUInfoRules::Signature s = CPUInfoRules::DecodeSignature(r[0]);
    out.family = s.family;
    out.model = s.model;
    out.stepping = s.stepping;
    out.leaf1Ecx = r[2];
    out.leaf1Edx = r[3];
  }
  if (Cpuid(7, 0, r)) {
    out.leaf7Ebx = r[1];
    out.leaf7Ecx = r[2];
    out.leaf7Edx = r[3];
  }
  if (Cpuid(0x80000001u, 0, r)) {
    out.ext1Ecx = r[2];
    out.ext1Edx = r[3];
  }
  uint32_t brand[12];
  bool haveBrand = true;
  for (unsigned i = 0; i < 3 && haveBrand; ++i) {
    haveBrand = Cpuid(0x80000002u + i, 0, r);
    if (haveBrand) std::memcpy(brand + 4 * i, r, sizeof r);
  }
  if (haveBrand) out.brand = CPUInfoRules::DecodeBrand(brand).c_str();
}

// Logical, physical and package counts from sysfs topology.
bool ReadCounts(CPUInfo& out) {
  const std::string base = "/sys/devices/system/cpu/";
  const std::vector<unsigned> online =
      CPUInfoRules::ParseCpuList(ReadText(base + "online"));
  if (online.empty()) return false;
  std::set<std::pair<long, long>> cores;
  std::set<long> packages;
  for (unsigned cpu : online) {
    const std::string topo = base + "cpu" + std::to_string(cpu) + "/topology/";
    const std::string pkg = ReadText(topo + "physical_package_id");
    const std::string core = ReadText(topo + "core_id");
    // Without topology every CPU counts as its own core.
    const long p = pkg.empty() ? 0 : std::atol(pkg.c_str());
    const long c =
        core.empty() ? static_cast<long>(cpu) : std::atol(core.c_str());
    cores.insert({p, c});
    packages.insert(p);
  }
  out.logicalCores = static_cast<unsigned>(online.size());
  out.physicalCores = static_cast<unsigned>(cores.size());
  out.packages = static_cast<unsigned>(packages.size());
  return true;
}

unsigned MeasuredMHz() {
#if defined(__x86_64__) || defined(__i386__)
  struct timespec t0, t1, pause = {0, 20 * 1000 * 1000};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &t0);
  const unsigned long long c0 = __rdtsc();
  while (::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
  }
  const unsigned long long c1 = __rdtsc();
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &t1);
  const long long ns =
      (t1.tv_sec - t0.tv_sec) * 1000000000LL + (t1.tv_nsec - t0.tv_nsec);
  if (ns <= 0 || c1 <= c0) return 0;
  // cycles per microsecond is MHz; round to the nearest.
  return static_cast<unsigned>(((c1 - c0) * 1000.0 / ns) + 0.5);
#else
  return 0;
#endif
}

}  // namespace

bool CPUInfo::HasFeature(const char* name) const {
  if (name == nullptr) return false;
  for (const auto& f : kFeatures) {
    if (std::strcmp(f.name, name) == 0)
      return (Register(*this, f.reg) >> f.bit) & 1u;
  }
  return false;
}

std::vector<std::string> CPUInfo::Features() const {
  std::vector<std::string> names;
  for (const auto& f : kFeatures) {
    if ((Register(*this, f.reg) >> f.bit) & 1u) names.push_back(f.name);
  }
  return names;
}

bool CPUInfo::Read(CPUInfo& out) {
  out = CPUInfo();
  ReadCpuid(out);
  if (!ReadCounts(out)) {
    COM_LOG((LM_ERROR,
             "CPUInfo::Read: cannot read /sys/devices/system/cpu/online.\n"));
    return false;
  }
  return true;
}

ACE_CString CPUInfo::ModelName() {
  std::string name =
      CPUInfoRules::CpuInfoValue(ReadText("/proc/cpuinfo"), "model name");
  if (name.empty()) {
    CPUInfo info;
    ReadCpuid(info);
    name = info.brand.c_str();
  }
  if (name.empty())
    COM_LOG((LM_ERROR, "CPUInfo::ModelName: the processor has no name.\n"));
  return ACE_CString(name.c_str(), name.size());
}

unsigned CPUInfo::SpeedMHz() {
  const std::string khz =
      ReadText("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq");
  if (!khz.empty()) {
    const unsigned long v = std::strtoul(khz.c_str(), nullptr, 10);
    if (v > 0) return static_cast<unsigned>((v + 500) / 1000);
  }
  return MeasuredMHz();
}

bool CPUStats::Sample() {
  std::vector<Times> now = CPUInfoRules::ParseProcStat(ReadText("/proc/stat"));
  if (now.empty()) {
    COM_LOG((LM_ERROR, "CPUStats::Sample: cannot read /proc/stat.\n"));
    return false;
  }
  previous_ = std::move(current_);
  current_ = std::move(now);
  return true;
}

namespace {

const CPUStats::Times* Find(const std::vector<CPUStats::Times>& v, int cpu) {
  for (const auto& t : v) {
    if (t.cpu == cpu) return &t;
  }
  return nullptr;
}

}  // namespace

double CPUStats::TotalUsage() const {
  const Times* a = Find(previous_, -1);
  const Times* b = Find(current_, -1);
  return a && b ? CPUInfoRules::Usage(*a, *b) : -1;
}

double CPUStats::CoreUsage(unsigned cpu) const {
  const Times* a = Find(previous_, static_cast<int>(cpu));
  const Times* b = Find(current_, static_cast<int>(cpu));
  return a && b ? CPUInfoRules::Usage(*a, *b) : -1;
}

unsigned CPUStats::CoreCount() const {
  int highest = -1;
  for (const auto& t : current_) highest = std::max(highest, t.cpu);
  return static_cast<unsigned>(highest + 1);
}
