// CPUScheduler: the process-wide active object with one worker thread for
// processor-bound requests; a queue independent of SimpleScheduler's.
// Requests name it from GetActiveObj().
//
// Registered as "CPUScheduler", queue warning threshold 16384, one worker
// at thread priority 0 started by the first instance() (the worker passes
// the ServiceBarrier before it serves). It lives until the process ends;
// stop it with ActiveObj::stopAll at shutdown.
//
// Thread safety: instance() from any thread (double-checked under ACE's
// singleton lock: racing first calls make one scheduler with one worker).
//
//   MethodRequest::Schedule(request, Kelvane::NORMAL_PRIORITY);
#ifndef COM_COMMON_BASE_CPUSCHEDULER_H_
#define COM_COMMON_BASE_CPUSCHEDULER_H_

#include "common/base/activeobj.h"
#include "common/base/comexport.h"

class COM_EXPORT CPUScheduler : public ActiveObj {
 public:
  // The scheduler, created and started on first use; null when ACE gives
  // no singleton lock (during its own start-up or shutdown).
  static CPUScheduler* instance();

 protected:
  CPUScheduler();
  ~CPUScheduler() override;
};

#endif  // COM_COMMON_BASE_CPUSCHEDULER_H_
