// SimpleScheduler: the process-wide active object with one worker thread,
// for any component that wants to run method requests in the background
// without owning a thread. Requests name it from GetActiveObj(); with one
// worker they run one at a time, by priority then arrival.
//
// Registered as "SimpleScheduler", queue warning threshold 16384, one
// worker at thread priority 0 started by the first Instance() (the worker
// passes the ServiceBarrier before it serves).
//
// Thread safety: Instance() from any thread (double-checked under ACE's
// singleton lock: racing first calls make one scheduler with one worker).
// Destroy() once, at shutdown, by one thread, not from the scheduler's own
// worker.
//
//   MethodRequest::Schedule(request, Kelvane::NORMAL_PRIORITY);
//   ...
//   SimpleScheduler::Destroy();  // queued requests discarded, waiters woken
#ifndef COM_COMMON_BASE_SIMPLESCHEDULER_H_
#define COM_COMMON_BASE_SIMPLESCHEDULER_H_

#include "common/base/activeobj.h"
#include "common/base/comexport.h"

class COM_EXPORT SimpleScheduler : public ActiveObj {
 public:
  // The scheduler, created and started on first use; null when ACE gives
  // no singleton lock (during its own start-up or shutdown).
  static SimpleScheduler* Instance();
  // Stops the scheduler urgently (queued requests are discarded and their
  // waiters woken), deletes it and forgets it: the next Instance() makes a
  // new, empty one. Does nothing when there is none.
  static void Destroy();
  // Forgets the instance if it is this one.
  ~SimpleScheduler() override;

 protected:
  SimpleScheduler();
};

#endif  // COM_COMMON_BASE_SIMPLESCHEDULER_H_
