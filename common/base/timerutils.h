// Elapsed-time helpers on ACE's high-resolution timer: TimerUtils formats
// a timer's elapsed time, TimerGuard logs how long a scope took.
//
// TimerUtils::timerToString gives whole seconds, a point and three digits
// of milliseconds, then " s": 61.007 seconds read "61.007 s", half a
// second "0.500 s" (sub-millisecond parts are cut, not rounded).
// TimerGuard's line appends " seconds" to that text, so a 2.045-second
// scope labelled Load logs "Load time: 2.045 s seconds"; the doubled unit is
// the established text of that line and is kept.
//
// Thread safety: a TimerGuard belongs to the thread whose scope it times;
// timerToString reads its timer only.
//
//   {
//     TimerGuard guard("Load");   // logs at LM_DEBUG when the scope ends
//     LoadStudies();
//   }
#ifndef COM_COMMON_BASE_TIMERUTILS_H_
#define COM_COMMON_BASE_TIMERUTILS_H_

#include <ace/High_Res_Timer.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT TimerUtils {
 public:
  // The timer's elapsed time (stop minus start) as "%lld.%03lld s".
  static ACE_CString timerToString(const ACE_High_Res_Timer& timer);
};

class COM_EXPORT TimerGuard {
 public:
  // Starts the timer.
  explicit TimerGuard(const ACE_CString& label);
  // Copies the timer's state and the label.
  TimerGuard(const TimerGuard& other) = default;
  TimerGuard& operator=(const TimerGuard& other) = default;
  // Stops the timer and logs at LM_DEBUG "%s time: %s seconds\n" (label,
  // timerToString) under the unit path common/base/timerutils.
  ~TimerGuard();

 private:
  ACE_High_Res_Timer timer_;
  ACE_CString label_;
};

#endif  // COM_COMMON_BASE_TIMERUTILS_H_
