#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>

#include "common/os/systeminfo.h"

#include "demo.h"

namespace {

// The path of the loaded library, from the process's own mappings.
std::string LibraryPath() {
  std::FILE* maps = std::fopen("/proc/self/maps", "r");
  std::string found;
  char line[1024];
  while (maps && std::fgets(line, sizeof line, maps)) {
    std::string l(line);
    size_t slash = l.find('/');
    if (slash != std::string::npos &&
        l.find("libcom.so") != std::string::npos) {
      found = l.substr(slash);
      while (!found.empty() && found.back() == '\n') found.pop_back();
      break;
    }
  }
  if (maps) std::fclose(maps);
  return found;
}

void System() {
  unsigned total = 0, avail = 0, load = 0, vtotal = 0, vavail = 0, ptotal = 0,
           pavail = 0;
  SystemInfo::SystemMemoryInfoEx(total, avail, load, vtotal, vavail, ptotal,
                                 pavail);
  std::printf("physical memory:     %u MB, %u MB available (%u%% in use)\n",
              total >> 10, avail >> 10, load);
  std::printf("commit space:        %u MB, %u MB available\n", ptotal >> 10,
              pavail >> 10);
  std::printf("address space:       %u KB, %u KB available\n", vtotal, vavail);
  unsigned long ws = 0, pf = 0;
  if (SystemInfo::GetCurrentMemoryUsage(ws, pf)) {
    std::printf("this process:        %lu KB resident, %lu KB committed\n",
                ws >> 10, pf >> 10);
  }

  std::string tmp = std::filesystem::temp_directory_path().string();
  ACE_UINT64 size = 0, free = 0;
  SystemInfo::DiskInfo(tmp.c_str(), size, free);
  std::printf("disk of %-12s %" PRIu64 " MB, %" PRIu64 " MB free to us\n",
              (tmp + ":").c_str(), static_cast<uint64_t>(size >> 20),
              static_cast<uint64_t>(free >> 20));

  ACE_CString os;
  SystemInfo::OSName(os);
  std::printf("operating system:    '%s'\n", os.c_str());
  std::string lib = LibraryPath();
  std::printf("library version:     %s (%s)\n",
              SystemInfo::ApplicationVersion(lib.c_str()).c_str(), lib.c_str());
  std::printf("demo version:        %s\n",
              SystemInfo::ApplicationVersion("/proc/self/exe").c_str());
}

}  // namespace

COM_DEMO_SECTION(5, "System information", System);
