// SystemInfo: facts about the machine for logs and diagnostics: memory
// figures, the process's own memory use, disk figures, the operating
// system's name and version, the version of a module, the processor (see
// common/os/cpuinfo), the machine's address and name, and the displays (see
// common/os/monitorprop). The Windows-only queries (browser, framework)
// answer "not installed".
//
// Memory figures are unsigned 32-bit kilobytes (byte counts shifted right by
// 10, wrapping at 32 bits), except the memory load (a percentage 0..100) and
// the process figures (bytes). On Linux they come from:
//   physical      sysinfo(2) total; available = MemAvailable of /proc/meminfo
//                 (free + buffers when the kernel lacks it); load = used
//                 share of physical memory in percent, rounded down;
//   page file     the commit space: physical + swap; available = available
//                 physical + free swap;
//   virtual       the process's address space: RLIMIT_AS when set, else the
//                 architecture's user space (128 TiB on x86-64); available
//                 = that less the process's current size (/proc/self/statm).
//                 Both are clamped to 0xFFFFFFFF KB, so an unlimited x86-64
//                 process reports 4,294,967,295 KB.
// The older 32-bit figures that the virtual-memory rule below falls back on
// are the same byte counts saturated at 0xFFFFFFFF bytes.
//
// No member throws; failures are logged and leave outputs as documented.
// The members keep no state and may be called from any thread.
//
// Example:
//   unsigned total, avail, load, vtotal, vavail;
//   SystemInfo::SystemMemoryInfo(total, avail, load, vtotal, vavail);
//   ACE_UINT64 size, free;
//   SystemInfo::DiskInfo("/var/lib/archive", size, free);
#ifndef COM_COMMON_OS_SYSTEMINFO_H_
#define COM_COMMON_OS_SYSTEMINFO_H_

#include <vector>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/os/cpuinfo.h"
#include "common/os/monitorprop.h"

// The machine's memory figures in kilobytes (64-bit, not truncated), as
// MemoryAllocationException logs them. availExtendedVirtualKB is always 0,
// as it is on the platforms that define the figure.
struct SYSTEMINFOSTRUCT {
  unsigned memoryLoad;  // percent of physical memory in use
  ACE_UINT64 totalPhysKB;
  ACE_UINT64 availPhysKB;
  ACE_UINT64 totalPageFileKB;
  ACE_UINT64 availPageFileKB;
  ACE_UINT64 totalVirtualKB;
  ACE_UINT64 availVirtualKB;
  ACE_UINT64 availExtendedVirtualKB;
};

class COM_EXPORT SystemInfo {
 public:
  // The seven machine figures. A total virtual figure between 2,097,153 and
  // 3,145,728 KB inclusive is deliberately replaced by the older 32-bit
  // figure (see the file comment). When the platform figures cannot be read
  // the outputs are left untouched.
  static void SystemMemoryInfoEx(unsigned& totalPhysKB, unsigned& availPhysKB,
                                 unsigned& memoryLoad, unsigned& totalVirtualKB,
                                 unsigned& availVirtualKB,
                                 unsigned& totalPageFileKB,
                                 unsigned& availPageFileKB);
  // The first five of the figures above.
  static void SystemMemoryInfo(unsigned& totalPhysKB, unsigned& availPhysKB,
                               unsigned& memoryLoad, unsigned& totalVirtualKB,
                               unsigned& availVirtualKB);
  // The same figures into a record, in 64 bits; a null record is ignored.
  static void SystemMemoryInfoEx(SYSTEMINFOSTRUCT* info);

  // The calling process's working set (resident bytes) and committed bytes
  // (data and stack, the "data" field of /proc/self/statm). Both outputs
  // are 0 first; false, with a record at LM_DEBUG, when they cannot be read.
  static bool GetCurrentMemoryUsage(unsigned long& workingSetBytes,
                                    unsigned long& pagefileBytes);

  // One LM_DEBUG record of the memory figures: seven lines, or the first
  // five when the process figures cannot be read. The lines that say
  // "Bytes" carry kilobytes; the text is kept so on purpose.
  static void LogMemoryStatus();

  // Total bytes and bytes free to the caller (statvfs f_blocks and f_bavail
  // times f_frsize) of the file system holding `path`. On failure logs at
  // LM_ERROR and leaves both outputs unchanged.
  static void DiskInfo(const char* path, ACE_UINT64& total, ACE_UINT64& free);

  // The operating system's display name followed by one blank. On Linux it
  // is PRETTY_NAME of /etc/os-release (or /usr/lib/os-release), else NAME
  // and VERSION from there, else the kernel's name and release from
  // uname(2), e.g. "Debian GNU/Linux 12 (bookworm) ". The Windows version
  // table and its edition texts are not consulted on Linux.
  static void OSName(ACE_CString& name);

  // The "version" of the module's package-metadata note (the ELF stand-in
  // for a version resource), unchanged; "" with a record at LM_ERROR when
  // the file has no readable note or the note no version.
  static ACE_CString ApplicationVersion(const ACE_CString& modulePath);

  // The kernel and distribution versions: "<sysname> <release>, <ID>
  // <VERSION_ID>" of uname(2) and os-release, e.g. "Linux 6.1.0-18-amd64,
  // debian 12"; without VERSION_ID (a rolling release) only the ID, without
  // os-release only the kernel part. "" when uname fails.
  static ACE_CString OSVersion();

  // One line about the processor for a log: "<model name>, <vendor> family
  // <f> model <m> stepping <s>, <n> cores (<l> logical), <speed> MHz", e.g.
  // "AMD EPYC, AuthenticAMD family 26 model 2 stepping 1, 2 cores (2
  // logical), 2596 MHz". Parts that cannot be read are left out.
  static ACE_CString ProcessorInfo();

  // The processor's model name (no registry on Linux): see
  // CPUInfo::ModelName. "" when there is none.
  static ACE_CString ProcessorNameFromRegistry();

  // The processor's facts (CPUInfo::Read); false when they cannot be read.
  static bool GetCPUInfo(CPUInfo& info);

  // The nominal speed in MHz (CPUInfo::SpeedMHz); 0 when unknown.
  static unsigned GetCPUSpeed();

  // Whether the processor has the MMX instructions (the "mmx" flag).
  static bool IsMMXProcessor();

  // Linux has no such browser: always "", the answer for "not installed".
  static ACE_CString IEVersion();

  // Linux has no such framework: always false ("not installed").
  static bool IsDotNet1_1FrameworkInstalled();

  // The machine's IPv4 address in dotted form: the first address, in
  // getifaddrs(3) order, of an interface that is up and not a loopback. ""
  // when there is none (a machine with only "lo").
  static ACE_CString IPAddress();

  // Sets the host name (sethostname(2); needs CAP_SYS_ADMIN in the UTS
  // namespace). The name must be 1 to 64 characters of letters, digits,
  // '-' and '.', not starting with '-' or '.'; otherwise false with errno
  // EINVAL. False with a record at LM_ERROR on any failure.
  static bool SetMachineName(const char* name);

  // The available virtual figure of SystemMemoryInfoEx: the address space
  // still free to the process, in KB (clamped at 0xFFFFFFFF).
  static unsigned AvailableVirtualMemoryKB();

  // The connected displays (MonitorProp::Enumerate with connectedOnly);
  // returns their number, 0 on a headless machine, -1 when
  // /sys/class/drm exists but cannot be read.
  static int RetrieveDisplayInformation(std::vector<MonProp>& displays);
};

#endif  // COM_COMMON_OS_SYSTEMINFO_H_
