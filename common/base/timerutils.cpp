#include "common/base/timerutils.h"

#include <cstdio>

#include "common/base/comlog.h"
#include "common/base/internal/timerformat.h"

namespace Kelvane {
namespace internal {

ACE_CString FormatElapsed(const ACE_Time_Value& elapsed) {
  const long long seconds = static_cast<long long>(elapsed.sec());
  const long long millis =
      static_cast<long long>(elapsed.get_msec()) - seconds * 1000;
  char text[64];
  std::snprintf(text, sizeof text, "%lld.%03lld s", seconds, millis);
  return ACE_CString(text);
}

}  // namespace internal
}  // namespace Kelvane

ACE_CString TimerUtils::timerToString(const ACE_High_Res_Timer& timer) {
  ACE_Time_Value elapsed;
  timer.elapsed_time(elapsed);
  return Kelvane::internal::FormatElapsed(elapsed);
}

TimerGuard::TimerGuard(const ACE_CString& label) : label_(label) {
  timer_.start(ACE_OS::ACE_HRTIMER_GETTIME);
}

TimerGuard::~TimerGuard() {
  timer_.stop(ACE_OS::ACE_HRTIMER_GETTIME);
  COM_LOG((LM_DEBUG, "%s time: %s seconds\n", label_.c_str(),
           TimerUtils::timerToString(timer_).c_str()));
}
