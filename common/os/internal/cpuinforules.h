// The pure parts of CPUInfo and CPUStats: decoding cpuid values and parsing
// /proc/stat, /proc/cpuinfo and CPU lists.
//
// Thread safety: pure functions, callable from any thread.
#ifndef COM_COMMON_OS_INTERNAL_CPUINFORULES_H_
#define COM_COMMON_OS_INTERNAL_CPUINFORULES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "common/base/comexport.h"
#include "common/os/cpuinfo.h"

namespace CPUInfoRules {

// Display family, model and stepping from the eax of cpuid leaf 1.
struct Signature {
  unsigned family, model, stepping;
};
COM_EXPORT Signature DecodeSignature(uint32_t leaf1Eax);

// The brand string from the 12 registers of leaves 0x80000002..4, outer
// blanks removed.
COM_EXPORT std::string DecodeBrand(const uint32_t regs[12]);

// The CPU numbers of a sysfs CPU list ("0-3,8,10-11"); empty on a
// malformed list.
COM_EXPORT std::vector<unsigned> ParseCpuList(const std::string& text);

// The value of the first "key : value" line of /proc/cpuinfo text.
COM_EXPORT std::string CpuInfoValue(const std::string& text, const char* key);

// The cpu lines of /proc/stat text, the total line first when present.
COM_EXPORT std::vector<CPUStats::Times> ParseProcStat(const std::string& text);

// Busy percent between two samples of one line; -1 when no time passed or
// the counters went back.
COM_EXPORT double Usage(const CPUStats::Times& older,
                        const CPUStats::Times& newer);

}  // namespace CPUInfoRules

#endif  // COM_COMMON_OS_INTERNAL_CPUINFORULES_H_
