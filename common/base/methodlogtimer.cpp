#include "common/base/methodlogtimer.h"

#include <cstdint>
#include <time.h>

#include "common/base/comlog.h"

namespace {

ACE_UINT64 TickCount64() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<ACE_UINT64>(ts.tv_sec) * 1000u +
         static_cast<ACE_UINT64>(ts.tv_nsec) / 1000000u;
}

}  // namespace

MethodLogTimer::MethodLogTimer(const char* name, bool timed)
    : name_(name), timed_(timed), start_(0) {
  COM_LOG((LM_DEBUG, "MethodLogTimer::MethodLogTimer: %s - Begin\n", name_));
  if (timed_) start_ = TickCount64();
}

MethodLogTimer::~MethodLogTimer() {
  if (timed_) {
    const ACE_UINT64 seconds = (TickCount64() - start_) / 1000u;
    // The 64-bit seconds fill both "%d"s: low half, then high half.
    COM_LOG((LM_DEBUG, "MethodLogTimer::~MethodLogTimer: %s - End (%d.%03d)\n",
             name_, static_cast<int>(static_cast<uint32_t>(seconds)),
             static_cast<int>(static_cast<uint32_t>(seconds >> 32))));
  } else {
    COM_LOG((LM_DEBUG, "MethodLogTimer::~MethodLogTimer: %s - End\n", name_));
  }
}
