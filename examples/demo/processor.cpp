#include <cstdio>
#include <vector>

#include "common/os/cpuinfo.h"
#include "common/os/osinfo.h"
#include "common/os/systeminfo.h"

#include "demo.h"

namespace {

void Processor() {
  std::printf("processor:           %s\n",
              SystemInfo::ProcessorNameFromRegistry().c_str());
  std::printf("speed:               %u MHz\n", SystemInfo::GetCPUSpeed());
  CPUInfo cpu;
  if (SystemInfo::GetCPUInfo(cpu)) {
    std::printf("cores:               %u physical, %u logical, %u socket(s)\n",
                cpu.physicalCores, cpu.logicalCores, cpu.packages);
  }
  std::printf("summary:             %s\n", SystemInfo::ProcessorInfo().c_str());
  std::printf("OS version:          %s\n", SystemInfo::OSVersion().c_str());
  const SystemUtilCommon::OsVersionInfo version;
  std::printf("kernel 5.6 or later: %s (io_uring)\n",
              version.IsKernelAtLeast("5.6") ? "yes" : "no");

  std::vector<MonProp> displays;
  const int n = SystemInfo::RetrieveDisplayInformation(displays);
  if (n <= 0) {
    std::printf("displays:            none connected%s\n",
                n < 0 ? " (cannot read /sys/class/drm)" : "");
  }
  for (const MonProp& d : displays) {
    std::printf("display:             %s: %s %s, %ux%u mm, %ux%u at %u Hz\n",
                d.connector.c_str(), d.manufacturer.c_str(),
                d.modelName.c_str(), d.widthMm, d.heightMm, d.preferredWidth,
                d.preferredHeight, d.preferredRefreshHz);
  }
}

}  // namespace

COM_DEMO_SECTION(6, "Processor, OS version and displays", Processor);
