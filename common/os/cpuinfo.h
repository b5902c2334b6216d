// CPUInfo and CPUStats: what the processor is, and how busy it is.
//
// CPUInfo describes the processor the calling thread runs on, from the
// cpuid instruction (vendor, brand string, family/model/stepping, feature
// bits) and from sysfs (how many logical CPUs are online and how many
// physical cores they sit on). Family and model are the display values the
// kernel prints in /proc/cpuinfo: the extended family is added when the
// base family is 15, and the extended model is put in front when the base
// family is 6 or 15. Feature flags go by the names of the "flags" line of
// /proc/cpuinfo ("mmx", "sse4_2", "avx2", "pni" for SSE3); only the flags of
// the table in cpuinfo.cpp are known, any other name reads as absent.
// On a processor without cpuid (not x86) the cpuid fields stay empty or 0.
//
// CPUStats keeps the last two samples of /proc/stat and gives the share of
// time each CPU (and all of them together) was busy between them: busy is
// user + nice + system + irq + softirq + steal, idle is idle + iowait.
//
// Thread safety: CPUInfo::Read and the speed query may be called from any
// thread. A CPUStats object is not locked: one thread samples it.
//
// Example:
//   CPUInfo cpu;
//   if (CPUInfo::Read(cpu) && cpu.HasFeature("avx2")) { ... }
//   CPUStats stats;
//   stats.Sample(); /* work */ stats.Sample();
//   double busy = stats.TotalUsage();  // 0..100, or -1
#ifndef COM_COMMON_OS_CPUINFO_H_
#define COM_COMMON_OS_CPUINFO_H_

#include <string>
#include <vector>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

struct COM_EXPORT CPUInfo {
  ACE_CString vendor;  // "GenuineIntel", "AuthenticAMD"; "" without cpuid
  ACE_CString brand;   // the brand string, outer blanks removed; may be ""
  unsigned family = 0;
  unsigned model = 0;
  unsigned stepping = 0;
  unsigned logicalCores = 0;   // online CPUs
  unsigned physicalCores = 0;  // distinct (package, core) pairs among them
  unsigned packages = 0;       // distinct physical packages (sockets)
  // Raw feature registers: leaf 1 ecx/edx, leaf 7 ebx/ecx/edx, leaf
  // 0x80000001 ecx/edx.
  ACE_UINT32 leaf1Ecx = 0, leaf1Edx = 0;
  ACE_UINT32 leaf7Ebx = 0, leaf7Ecx = 0, leaf7Edx = 0;
  ACE_UINT32 ext1Ecx = 0, ext1Edx = 0;

  // Whether the named flag (a /proc/cpuinfo name) is set.
  bool HasFeature(const char* name) const;
  // The names of the set flags that the table knows, in table order.
  std::vector<std::string> Features() const;

  // Fills `out`. False, with a record at LM_ERROR, when the CPU counts
  // cannot be read; the cpuid fields are filled whenever cpuid exists.
  static bool Read(CPUInfo& out);

  // The processor's model name: "model name" of /proc/cpuinfo, else the
  // brand string, else "" (with a record at LM_ERROR).
  static ACE_CString ModelName();

  // The nominal speed in MHz: cpufreq's cpuinfo_max_freq of CPU 0 where the
  // kernel has cpufreq, else the rate of the time-stamp counter measured
  // over about 20 ms (the nominal rate on processors with an invariant
  // counter). 0 when neither is available.
  static unsigned SpeedMHz();
};

class COM_EXPORT CPUStats {
 public:
  // Reads /proc/stat; the previous sample becomes the older one. False,
  // with a record at LM_ERROR, when it cannot be read (samples unchanged).
  bool Sample();

  // Busy share of all CPUs in percent (0..100) between the last two
  // samples; -1 before two samples, or when no time passed between them.
  double TotalUsage() const;
  // The same for CPU number `cpu`; -1 also when the CPU is missing from
  // either sample (offline).
  double CoreUsage(unsigned cpu) const;
  // One more than the highest CPU number of the last sample.
  unsigned CoreCount() const;

  // Cumulative jiffies of one line of /proc/stat.
  struct Times {
    int cpu;  // -1 for the "cpu" total line
    ACE_UINT64 busy;
    ACE_UINT64 total;
  };

 private:
  std::vector<Times> previous_;
  std::vector<Times> current_;
};

#endif  // COM_COMMON_OS_CPUINFO_H_
