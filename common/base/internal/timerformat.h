// The text of TimerUtils::timerToString for an elapsed time, apart from the
// timer so that any value can be fed to it.
#ifndef COM_COMMON_BASE_INTERNAL_TIMERFORMAT_H_
#define COM_COMMON_BASE_INTERNAL_TIMERFORMAT_H_

#include <ace/SString.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {

// "%lld.%03lld s": whole seconds, then the milliseconds beyond them.
COM_EXPORT ACE_CString FormatElapsed(const ACE_Time_Value& elapsed);

}  // namespace internal
}  // namespace Kelvane

#endif  // COM_COMMON_BASE_INTERNAL_TIMERFORMAT_H_
