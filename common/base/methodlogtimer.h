// MethodLogTimer: a scope object that logs the entry and exit of a method at
// LM_DEBUG, optionally with the time spent.
//
//   void Archive::Store() {
//     MethodLogTimer t("Archive::Store", true);
//     ...
//   }  // "MethodLogTimer::~MethodLogTimer: Archive::Store - End (2.000)"
//
// The timed end line prints "%d.%03d" fed with the elapsed whole seconds as
// a 64-bit value split into its low and high 32-bit halves: the first
// number is the seconds and the second, the high half, is 0, so the
// fraction always reads 000 and the milliseconds are not shown. Callers
// parse these lines; the quirk is kept. Time is CLOCK_MONOTONIC.
//
// Thread safety: one object per scope and thread.
#ifndef COM_COMMON_BASE_METHODLOGTIMER_H_
#define COM_COMMON_BASE_METHODLOGTIMER_H_

#include <ace/Basic_Types.h>

#include "common/base/comexport.h"

class COM_EXPORT MethodLogTimer {
 public:
  // Logs "<name> - Begin"; `name` is not copied and must outlive the object.
  MethodLogTimer(const char* name, bool timed);
  ~MethodLogTimer();

 private:
  MethodLogTimer(const MethodLogTimer&) = delete;
  MethodLogTimer& operator=(const MethodLogTimer&) = delete;

  const char* name_;
  bool timed_;
  ACE_UINT64 start_;
};

#endif  // COM_COMMON_BASE_METHODLOGTIMER_H_
