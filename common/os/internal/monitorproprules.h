// MonitorProp over a given sysfs DRM folder, so that a made-up tree can
// stand in for /sys/class/drm.
//
// Thread safety: no state; callable from any thread.
#ifndef COM_COMMON_OS_INTERNAL_MONITORPROPRULES_H_
#define COM_COMMON_OS_INTERNAL_MONITORPROPRULES_H_

#include <string>
#include <vector>

#include "common/base/comexport.h"
#include "common/os/monitorprop.h"

namespace MonitorPropRules {

// MonitorProp::Enumerate with `drmDir` in place of "/sys/class/drm".
COM_EXPORT int EnumerateAt(const char* drmDir, std::vector<MonProp>& out,
                           bool connectedOnly);

// True when connector folder name `a` sorts before `b`: card number, then
// the name with numbers compared by value.
COM_EXPORT bool ConnectorBefore(const std::string& a, const std::string& b);

}  // namespace MonitorPropRules

#endif  // COM_COMMON_OS_INTERNAL_MONITORPROPRULES_H_
