#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <ace/Configuration.h>

#include "common/os/kelvanewin32registry.h"
#include "common/os/ntservice.h"
#include "common/os/volumeutils.h"

#include "demo.h"

namespace {

void Volumes() {
  std::vector<ACE_CString> all, stacks;
  Kelvane::listVolumes(all, false, false);
  Kelvane::listVolumes(stacks, true, true);
  std::printf(
      "volumes:             %zu, of which %zu fixed and not the "
      "system's\n",
      all.size(), stacks.size());
  for (const ACE_CString& v : all) {
    std::printf("  %-40s%s\n", v.c_str(),
                Kelvane::isSystemVolume(v) ? " (system)" : "");
  }
  ACE_CString root = Kelvane::uniqueVolumeName("/");
  std::printf("volume at /:         '%s'\n", root.c_str());

  // Installations without dedicated disks keep their stacks in folders.
  std::vector<ACE_CString> simulated;
  Kelvane::listSimulatedVolumes((demo::ScratchDir() + "/stacks").c_str(),
                                simulated, 3);
  for (const ACE_CString& s : simulated) {
    std::printf("simulated volume:    %s\n", s.c_str());
  }

  // Settings read without write access to the configuration.
  const std::string ini = demo::ScratchDir() + "/kelvane.ini";
  std::ofstream(ini) << "[SOFTWARE\\Kelvane\\QuillonServer\\System]\n"
                        "Debug = 1\n";
  KelvaneWin32Registry registry(ini.c_str());
  ACE_Configuration_Section_Key key;
  ACE_TString debug;
  if (registry.open_section_readonly(registry.root_section(),
                                     "Software\\Kelvane\\QuillonServer\\System",
                                     key) == 0 &&
      registry.get_string_value(key, "Debug", debug) == 0) {
    std::printf("Debug setting:       %s\n", debug.c_str());
  }
  std::printf("missing section:     %d\n",
              registry.open_section_readonly(registry.root_section(),
                                             "SOFTWARE\\Other", key));

  NT_Service service("dbus");
  try {
    service.open();
    std::printf("dbus.service:        %s, %s\n",
                service.isRunning() ? "running" : "not running",
                service.isEnabled() ? "may be started" : "disabled");
  } catch (const NT_Service::APIError& e) {
    std::printf("dbus.service:        cannot ask: %s\n", e.what());
  }
}

}  // namespace

COM_DEMO_SECTION(45, "Volumes, read-only settings and services", Volumes);
