// Rules of the service control that need no bus, kept apart so that tests
// can feed them made-up inputs.
#ifndef COM_COMMON_OS_INTERNAL_NTSERVICERULES_H_
#define COM_COMMON_OS_INTERNAL_NTSERVICERULES_H_

#include <string>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// The systemd unit of a service name: "x" gives "x.service", and a name
// that already ends in ".service" is kept.
COM_EXPORT std::string ServiceUnitName(const std::string& name);

// Whether a unit-file state allows the unit to be started: every state but
// "masked" and "masked-runtime".
COM_EXPORT bool UnitFileStateEnabled(const std::string& state);

// Whether an ActiveState counts as running: "active", "activating" and
// "reloading".
COM_EXPORT bool ActiveStateRunning(const std::string& state);

// The errno of a finished job's result: 0 for "done" and "skipped";
// ETIMEDOUT, ECANCELED, EOPNOTSUPP ("unsupported"), EINVAL ("invalid"),
// EIO for every other result ("failed", "dependency", ...).
COM_EXPORT int JobResultError(const std::string& result);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_OS_INTERNAL_NTSERVICERULES_H_
