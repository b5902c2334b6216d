#include "common/os/systeminfo.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <errno.h>
#include <fstream>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "common/base/comlog.h"
#include "common/os/internal/osinforules.h"
#include "common/os/internal/packagenote.h"
#include "common/os/internal/systeminforules.h"
#include "common/os/osinfo.h"

namespace SystemInfoRules {

bool ComputeMemoryRecord(const MemoryStatusReport& r, SYSTEMINFOSTRUCT* out) {
  if (!r.available) return false;
  SYSTEMINFOSTRUCT rec{};
  if (r.hasExtended) {
    rec.memoryLoad = r.memoryLoad;
    rec.totalPhysKB = r.totalPhys >> 10;
    rec.availPhysKB = r.availPhys >> 10;
    rec.totalPageFileKB = r.totalPageFile >> 10;
    rec.availPageFileKB = r.availPageFile >> 10;
    rec.totalVirtualKB = r.totalVirtual >> 10;
    rec.availVirtualKB = r.availVirtual >> 10;
    rec.availExtendedVirtualKB = r.availExtendedVirtual >> 10;
    // Deliberate: a total virtual figure in this band (a 32-bit process
    // with a large address space) is taken from the older call instead.
    if (rec.totalVirtualKB >= kQuirkLowKB && rec.totalVirtualKB <= kQuirkHighKB)
      rec.totalVirtualKB = r.legacyTotalVirtual >> 10;
  } else {
    rec.memoryLoad = r.legacyMemoryLoad;
    rec.totalPhysKB = r.legacyTotalPhys >> 10;
    rec.availPhysKB = r.legacyAvailPhys >> 10;
    rec.totalPageFileKB = r.legacyTotalPageFile >> 10;
    rec.availPageFileKB = r.legacyAvailPageFile >> 10;
    rec.totalVirtualKB = r.legacyTotalVirtual >> 10;
    rec.availVirtualKB = r.legacyAvailVirtual >> 10;
    rec.availExtendedVirtualKB = 0;
  }
  *out = rec;
  return true;
}

MemoryFigures Truncate(const SYSTEMINFOSTRUCT& rec) {
  MemoryFigures f;
  f.totalPhysKB = static_cast<uint32_t>(rec.totalPhysKB);
  f.availPhysKB = static_cast<uint32_t>(rec.availPhysKB);
  f.memoryLoad = rec.memoryLoad;
  f.totalVirtualKB = static_cast<uint32_t>(rec.totalVirtualKB);
  f.availVirtualKB = static_cast<uint32_t>(rec.availVirtualKB);
  f.totalPageFileKB = static_cast<uint32_t>(rec.totalPageFileKB);
  f.availPageFileKB = static_cast<uint32_t>(rec.availPageFileKB);
  return f;
}

void LogMemoryStatus(const MemoryFigures& f, bool haveProcessFigures,
                     unsigned long workingSetBytes,
                     unsigned long pagefileBytes) {
  // "%d" on unsigned figures, as the record always printed them.
  const int total = static_cast<int>(f.totalPhysKB);
  const int load = static_cast<int>(f.memoryLoad);
  const int avail = static_cast<int>(f.availPhysKB);
  const int vtotal = static_cast<int>(f.totalVirtualKB);
  const int vavail = static_cast<int>(f.availVirtualKB);
  if (haveProcessFigures) {
    const int ws =
        static_cast<int>(static_cast<uint32_t>(workingSetBytes >> 10));
    const int pf = static_cast<int>(static_cast<uint32_t>(pagefileBytes >> 10));
    COM_LOG((LM_DEBUG,
             "Total memory is %d Bytes\n"
             "Percentage of Memory currenly used is %d percent\n"
             "Memory currently free %d Bytes\n"
             "Total Virtual Memory is %d Bytes\n"
             "Available Virtual Memory is %d Bytes\n"
             "Current Working Set is %d KB\n"
             "Virtual Memory Usage is %d KB\n",
             total, load, avail, vtotal, vavail, ws, pf));
  } else {
    COM_LOG((LM_DEBUG,
             "Total memory is %d Bytes\n"
             "Percentage of Memory currenly used is %d percent\n"
             "Memory currently free %d Bytes\n"
             "Total Virtual Memory is %d Bytes\n"
             "Available Virtual Memory is %d Bytes\n",
             total, load, avail, vtotal, vavail));
  }
}

ACE_CString EditionText(uint32_t productType, bool is64Bit) {
  // Product codes of the platform's product-information call.
  static const struct {
    uint32_t code;
    const char* text;
  } kEditions[] = {
      {0x01, "Ultimate Edition"},
      {0x30, "Professional"},
      {0x03, "Home Premium Edition"},
      {0x02, "Home Basic Edition"},
      {0x04, "Enterprise Edition"},
      {0x06, "Business Edition"},
      {0x0B, "Starter Edition"},
      {0x12, "Cluster Server Edition"},
      {0x08, "Datacenter Edition"},
      {0x0C, "Datacenter Edition (core installation)"},
      {0x0A, "Enterprise Edition"},
      {0x0E, "Enterprise Edition (core installation)"},
      {0x0F, "Enterprise Edition for Itanium-based Systems"},
      {0x09, "Small Business Server"},
      {0x19, "Small Business Server Premium Edition"},
      {0x07, "Standard Edition"},
      {0x0D, "Standard Edition (core installation)"},
      {0x11, "Web Server Edition"},
  };
  ACE_CString text("OS Type is undefined");
  for (const auto& e : kEditions) {
    if (e.code == productType) {
      text = e.text;
      break;
    }
  }
  text += is64Bit ? ", 64-bit" : ", 32-bit";
  return text;
}

void ApplyWindowsName(const OSVersionRecord& v, ACE_CString& name) {
  if (v.major == 0 && v.minor == 0) {
    name = "Not able to retrieve OS Name ";
    return;
  }
  switch (v.platformId) {
    case 0:
      name = "Microsoft Win32s ";
      return;
    case 1:
      name = (v.major < 4 || (v.major == 4 && v.minor == 0))
                 ? "Microsoft Windows 95 "
                 : "Microsoft Windows 98 ";
      return;
    case 2:
      break;
    default:
      return;
  }
  if (v.major <= 4) {
    name = "Microsoft Windows NT ";
  } else if (v.major == 5) {
    if (v.minor == 0) name = "Microsoft Windows 2000 ";
    if (v.minor == 1) name = "Microsoft Windows XP ";
  } else if (v.major == 6) {
    static const char* const kWorkstation[] = {"Windows Vista ", "Windows 7 ",
                                               "Windows 8 ", "Windows 8.1 "};
    static const char* const kServer[] = {
        "Windows Server 2008 ", "Windows Server 2008 R2 ",
        "Windows Server 2012 ", "Windows Server 2012 R2 "};
    // An unlisted minor keeps the caller's text and still gets the edition.
    if (v.minor <= 3)
      name = v.isServer ? kServer[v.minor] : kWorkstation[v.minor];
    name += EditionText(v.productType, v.is64Bit);
  } else if (v.major == 10) {
    if (v.minor == 0)
      name = v.isServer ? "Windows Server 2016 " : "Windows 10 ";
    name += EditionText(v.productType, v.is64Bit);
  }
}

ACE_CString LinuxName(const char* osRelease, const char* sysname,
                      const char* release) {
  const std::string text = osRelease ? osRelease : "";
  const std::string pretty = OSInfoRules::OsReleaseValue(text, "PRETTY_NAME");
  const std::string nameField = OSInfoRules::OsReleaseValue(text, "NAME");
  const std::string version = OSInfoRules::OsReleaseValue(text, "VERSION");
  std::string result;
  if (!pretty.empty()) {
    result = pretty;
  } else if (!nameField.empty()) {
    result = version.empty() ? nameField : nameField + " " + version;
  } else {
    result = sysname && *sysname ? sysname : "Linux";
    if (release && *release) result += std::string(" ") + release;
  }
  result += " ";
  return ACE_CString(result.c_str(), result.size());
}

}  // namespace SystemInfoRules

namespace {

using SystemInfoRules::MemoryStatusReport;

constexpr uint64_t kMaxKBInBytes = uint64_t{0xFFFFFFFF} << 10;

uint64_t UserAddressSpace() {
#if defined(__x86_64__)
  return (uint64_t{1} << 47) - 4096;
#elif defined(__i386__) || defined(__arm__)
  return uint64_t{0xC0000000};
#else
  return uint64_t{1} << 48;
#endif
}

uint32_t Saturate32(uint64_t v) {
  return v > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
}

// The kB value of one /proc/meminfo line, or -1.
long long MemInfoKB(const std::string& text, const char* key) {
  size_t at = text.find(std::string("\n") + key + ":");
  if (at == std::string::npos) {
    if (text.compare(0, std::strlen(key) + 1, std::string(key) + ":") != 0)
      return -1;
    at = 0;
  } else {
    ++at;
  }
  return std::atoll(text.c_str() + at + std::strlen(key) + 1);
}

std::string ReadText(const char* path) {
  std::ifstream in(path);
  if (!in) return std::string();
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Pages of /proc/self/statm: size, resident, shared, text, lib, data.
bool ReadStatm(unsigned long long fields[6]) {
  FILE* f = std::fopen("/proc/self/statm", "re");
  if (!f) return false;
  int n =
      std::fscanf(f, "%llu %llu %llu %llu %llu %llu", &fields[0], &fields[1],
                  &fields[2], &fields[3], &fields[4], &fields[5]);
  std::fclose(f);
  return n == 6;
}

MemoryStatusReport ReadMemoryStatus() {
  MemoryStatusReport r{};
  struct sysinfo si;
  if (::sysinfo(&si) != 0) return r;
  const uint64_t unit = si.mem_unit ? si.mem_unit : 1;
  r.available = true;
  r.hasExtended = true;
  r.totalPhys = uint64_t{si.totalram} * unit;
  long long availKB = MemInfoKB(ReadText("/proc/meminfo"), "MemAvailable");
  r.availPhys = availKB >= 0 ? uint64_t(availKB) << 10
                             : (uint64_t{si.freeram} + si.bufferram) * unit;
  r.availPhys = std::min(r.availPhys, r.totalPhys);
  r.memoryLoad = r.totalPhys
                     ? static_cast<uint32_t>((r.totalPhys - r.availPhys) * 100 /
                                             r.totalPhys)
                     : 0;
  const uint64_t swapTotal = uint64_t{si.totalswap} * unit;
  const uint64_t swapFree = uint64_t{si.freeswap} * unit;
  r.totalPageFile = r.totalPhys + swapTotal;
  r.availPageFile = r.availPhys + swapFree;

  struct rlimit rl;
  uint64_t space = UserAddressSpace();
  if (::getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
    space = rl.rlim_cur;
  unsigned long long statm[6];
  const uint64_t used =
      ReadStatm(statm) ? statm[0] * static_cast<uint64_t>(::getpagesize()) : 0;
  r.totalVirtual = std::min(space, kMaxKBInBytes);
  r.availVirtual = std::min(space > used ? space - used : 0, kMaxKBInBytes);
  r.availExtendedVirtual = 0;

  r.legacyMemoryLoad = r.memoryLoad;
  r.legacyTotalPhys = Saturate32(r.totalPhys);
  r.legacyAvailPhys = Saturate32(r.availPhys);
  r.legacyTotalPageFile = Saturate32(r.totalPageFile);
  r.legacyAvailPageFile = Saturate32(r.availPageFile);
  r.legacyTotalVirtual = Saturate32(r.totalVirtual);
  r.legacyAvailVirtual = Saturate32(r.availVirtual);
  return r;
}

}  // namespace

void SystemInfo::SystemMemoryInfoEx(SYSTEMINFOSTRUCT* info) {
  if (info == nullptr) return;
  SystemInfoRules::ComputeMemoryRecord(ReadMemoryStatus(), info);
}

void SystemInfo::SystemMemoryInfoEx(unsigned& totalPhysKB,
                                    unsigned& availPhysKB, unsigned& memoryLoad,
                                    unsigned& totalVirtualKB,
                                    unsigned& availVirtualKB,
                                    unsigned& totalPageFileKB,
                                    unsigned& availPageFileKB) {
  SYSTEMINFOSTRUCT rec;
  if (!SystemInfoRules::ComputeMemoryRecord(ReadMemoryStatus(), &rec)) return;
  SystemInfoRules::MemoryFigures f = SystemInfoRules::Truncate(rec);
  totalPhysKB = f.totalPhysKB;
  availPhysKB = f.availPhysKB;
  memoryLoad = f.memoryLoad;
  totalVirtualKB = f.totalVirtualKB;
  availVirtualKB = f.availVirtualKB;
  totalPageFileKB = f.totalPageFileKB;
  availPageFileKB = f.availPageFileKB;
}

void SystemInfo::SystemMemoryInfo(unsigned& totalPhysKB, unsigned& availPhysKB,
                                  unsigned& memoryLoad,
                                  unsigned& totalVirtualKB,
                                  unsigned& availVirtualKB) {
  unsigned pageTotal = 0, pageAvail = 0;
  SystemMemoryInfoEx(totalPhysKB, availPhysKB, memoryLoad, totalVirtualKB,
                     availVirtualKB, pageTotal, pageAvail);
}

bool SystemInfo::GetCurrentMemoryUsage(unsigned long& workingSetBytes,
                                       unsigned long& pagefileBytes) {
  workingSetBytes = 0;
  pagefileBytes = 0;
  unsigned long long statm[6];
  if (!ReadStatm(statm)) {
    COM_LOG((LM_DEBUG,
             "SystemInfo::GetCurrentMemoryUsage: GetProcessMemoryInfo() "
             "returned error.\n"));
    return false;
  }
  const unsigned long page = static_cast<unsigned long>(::getpagesize());
  workingSetBytes = static_cast<unsigned long>(statm[1]) * page;
  pagefileBytes = static_cast<unsigned long>(statm[5]) * page;
  return true;
}

void SystemInfo::LogMemoryStatus() {
  SystemInfoRules::MemoryFigures f{};
  SystemMemoryInfo(f.totalPhysKB, f.availPhysKB, f.memoryLoad, f.totalVirtualKB,
                   f.availVirtualKB);
  unsigned long ws = 0, pf = 0;
  bool have = GetCurrentMemoryUsage(ws, pf);
  SystemInfoRules::LogMemoryStatus(f, have, ws, pf);
}

void SystemInfo::DiskInfo(const char* path, ACE_UINT64& total,
                          ACE_UINT64& free) {
  struct statvfs vfs;
  if (path == nullptr || ::statvfs(path, &vfs) != 0) {
    if (path == nullptr) errno = EFAULT;
    COM_LOG(
        (LM_ERROR,
         "SystemInfo::DiskInfo: GetDiskFreeSpaceEx() failed. OS Error: %m"));
    return;
  }
  const ACE_UINT64 unit = vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize;
  total = ACE_UINT64{vfs.f_blocks} * unit;
  free = ACE_UINT64{vfs.f_bavail} * unit;
}

void SystemInfo::OSName(ACE_CString& name) {
  const OSVERSIONRECORD r = OSInfo::GetOSInfoEx();
  name = SystemInfoRules::LinuxName(
      r.osReleaseText.length() ? r.osReleaseText.c_str() : nullptr,
      r.sysName.length() ? r.sysName.c_str() : nullptr,
      r.release.length() ? r.release.c_str() : nullptr);
}

ACE_CString SystemInfo::ApplicationVersion(const ACE_CString& modulePath) {
  ACE_CString json;
  if (Kelvane::ReadPackageNote(modulePath.c_str(), json) != 0) {
    // A note that is there but cannot be read is the second failure; no
    // note at all (or no file) is the first.
    if (errno == EBADMSG || errno == EIO) {
      COM_LOG((LM_ERROR,
               "SystemInfo::ApplicationVersion: Unable to get file version "
               "info. OS Error: %m\n"));
    } else {
      COM_LOG((LM_ERROR,
               "SystemInfo::ApplicationVersion: Unable to get file version "
               "info size. OS Error: %m\n"));
    }
    return ACE_CString();
  }
  ACE_CString version;
  if (Kelvane::PackageNoteField(json.c_str(), json.length(), "version",
                                version) != 0) {
    COM_LOG((LM_ERROR,
             "SystemInfo::ApplicationVersion: Unable to query product version "
             "info. OS Error: %m\n"));
    return ACE_CString();
  }
  return version;
}

ACE_CString SystemInfo::OSVersion() {
  const OSVERSIONRECORD r = OSInfo::GetOSInfoEx();
  if (r.release.length() == 0) return ACE_CString();
  ACE_CString text = r.sysName;
  text += " ";
  text += r.release;
  if (r.distributionId.length() != 0) {
    text += ", ";
    text += r.distributionId;
    if (r.distributionVersion.length() != 0) {
      text += " ";
      text += r.distributionVersion;
    }
  }
  return text;
}

ACE_CString SystemInfo::ProcessorInfo() {
  std::string text = CPUInfo::ModelName().c_str();
  CPUInfo cpu;
  const bool counts = CPUInfo::Read(cpu);
  if (cpu.vendor.length() != 0) {
    if (!text.empty()) text += ", ";
    text += cpu.vendor.c_str();
    text += " family " + std::to_string(cpu.family) + " model " +
            std::to_string(cpu.model) + " stepping " +
            std::to_string(cpu.stepping);
  }
  if (counts) {
    if (!text.empty()) text += ", ";
    text += std::to_string(cpu.physicalCores) + " cores (" +
            std::to_string(cpu.logicalCores) + " logical)";
  }
  const unsigned mhz = CPUInfo::SpeedMHz();
  if (mhz != 0) {
    if (!text.empty()) text += ", ";
    text += std::to_string(mhz) + " MHz";
  }
  return ACE_CString(text.c_str(), text.size());
}

ACE_CString SystemInfo::ProcessorNameFromRegistry() {
  return CPUInfo::ModelName();
}

bool SystemInfo::GetCPUInfo(CPUInfo& info) { return CPUInfo::Read(info); }

unsigned SystemInfo::GetCPUSpeed() { return CPUInfo::SpeedMHz(); }

bool SystemInfo::IsMMXProcessor() {
  CPUInfo cpu;
  CPUInfo::Read(cpu);
  return cpu.HasFeature("mmx");
}

ACE_CString SystemInfo::IEVersion() { return ACE_CString(); }

bool SystemInfo::IsDotNet1_1FrameworkInstalled() { return false; }

ACE_CString SystemInfo::IPAddress() {
  struct ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    COM_LOG((LM_ERROR,
             "SystemInfo::IPAddress: getifaddrs() failed. OS Error: %m\n"));
    return ACE_CString();
  }
  ACE_CString found;
  for (struct ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_INET) continue;
    if ((a->ifa_flags & IFF_UP) == 0 || (a->ifa_flags & IFF_LOOPBACK) != 0)
      continue;
    char text[INET_ADDRSTRLEN];
    const auto* in = reinterpret_cast<const sockaddr_in*>(a->ifa_addr);
    if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text) != nullptr) {
      found = text;
      break;
    }
  }
  ::freeifaddrs(list);
  return found;
}

bool SystemInfo::SetMachineName(const char* name) {
  size_t len = name ? std::strlen(name) : 0;
  bool valid = len >= 1 && len <= 64 && name[0] != '-' && name[0] != '.';
  for (size_t i = 0; valid && i < len; ++i) {
    const char c = name[i];
    valid = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
            (c >= '0' && c <= '9') || c == '-' || c == '.';
  }
  if (!valid) {
    errno = EINVAL;
  } else if (::sethostname(name, len) == 0) {
    return true;
  }
  COM_LOG((LM_ERROR,
           "SystemInfo::SetMachineName: sethostname() failed. OS Error: %m\n"));
  return false;
}

unsigned SystemInfo::AvailableVirtualMemoryKB() {
  unsigned total = 0, avail = 0, load = 0, vtotal = 0, vavail = 0;
  SystemMemoryInfo(total, avail, load, vtotal, vavail);
  return vavail;
}

int SystemInfo::RetrieveDisplayInformation(std::vector<MonProp>& displays) {
  return MonitorProp::Enumerate(displays, true);
}
