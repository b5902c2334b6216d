// The rules of SystemInfo kept apart from the calls that feed them: the
// memory figures with their virtual-memory quirk, the memory log record,
// the Windows version-name table with its edition texts, and the Linux name
// taken from os-release.
//
// Thread safety: pure functions, callable from any thread.
#ifndef COM_COMMON_OS_INTERNAL_SYSTEMINFORULES_H_
#define COM_COMMON_OS_INTERNAL_SYSTEMINFORULES_H_

#include <cstdint>

#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/os/systeminfo.h"

namespace SystemInfoRules {

// What the platform reports, in bytes.
struct MemoryStatusReport {
  bool available;    // false: nothing could be read, outputs stay untouched
  bool hasExtended;  // the 64-bit call exists
  // The 64-bit call.
  uint32_t memoryLoad;
  uint64_t totalPhys, availPhys, totalPageFile, availPageFile;
  uint64_t totalVirtual, availVirtual, availExtendedVirtual;
  // The older call: 32-bit byte counts.
  uint32_t legacyMemoryLoad;
  uint32_t legacyTotalPhys, legacyAvailPhys, legacyTotalPageFile,
      legacyAvailPageFile, legacyTotalVirtual, legacyAvailVirtual;
};

// Total virtual figures in this range (KB, inclusive) are replaced by the
// older call's figure.
constexpr uint64_t kQuirkLowKB = 0x200001;
constexpr uint64_t kQuirkHighKB = 0x300000;

// The figures in kilobytes, in 64 bits. Returns false when !available.
COM_EXPORT bool ComputeMemoryRecord(const MemoryStatusReport& report,
                                    SYSTEMINFOSTRUCT* out);

// The seven 32-bit figures of SystemInfo::SystemMemoryInfoEx.
struct MemoryFigures {
  uint32_t totalPhysKB, availPhysKB, memoryLoad, totalVirtualKB, availVirtualKB,
      totalPageFileKB, availPageFileKB;
};
// The record's figures wrapped to 32 bits.
COM_EXPORT MemoryFigures Truncate(const SYSTEMINFOSTRUCT& record);

// Logs the LM_DEBUG record of SystemInfo::LogMemoryStatus.
COM_EXPORT void LogMemoryStatus(const MemoryFigures& figures,
                                bool haveProcessFigures,
                                unsigned long workingSetBytes,
                                unsigned long pagefileBytes);

// The version record of the Windows name table.
struct OSVersionRecord {
  uint32_t major;
  uint32_t minor;
  uint32_t platformId;
  bool isServer;
  uint32_t productType;  // the product-information code of the edition
  bool is64Bit;
};

// Applies the name table to `name`: a listed version replaces it, 6.x and
// 10.x then get the edition text appended, anything else is left alone.
COM_EXPORT void ApplyWindowsName(const OSVersionRecord& version,
                                 ACE_CString& name);

// "Ultimate Edition, 64-bit" and the like; "OS Type is undefined" for an
// unknown product code.
COM_EXPORT ACE_CString EditionText(uint32_t productType, bool is64Bit);

// The Linux display name from the text of an os-release file (may be null)
// and the kernel's name and release, followed by one blank.
COM_EXPORT ACE_CString LinuxName(const char* osRelease, const char* sysname,
                                 const char* release);

}  // namespace SystemInfoRules

#endif  // COM_COMMON_OS_INTERNAL_SYSTEMINFORULES_H_
