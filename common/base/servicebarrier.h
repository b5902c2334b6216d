// ServiceBarrier: a process-wide gate that holds back the worker threads of
// every ActiveObj while the service starts.
//
// A service calls start() before it creates and runs its active objects and
// end() once its initialisation is complete; every worker thread calls
// wait() before it serves its queue, so no request runs before end(). Any
// number of workers pass at once (they take the read side of a read/write
// lock and drop it at once).
//
// Thread safety: instance() may be called from any thread. start() and
// end() hold the write side of a POSIX read/write lock and must be called
// on the same thread; wait() may be called from any thread. wait() returns
// at once when no start phase is in progress (start() never called, or
// end() already called).
//
//   ServiceBarrier* barrier = ServiceBarrier::instance();
//   barrier->start();
//   scheduler.run(4, 0);    // workers wait here ...
//   LoadConfiguration();
//   barrier->end();         // ... and start serving now
#ifndef COM_COMMON_BASE_SERVICEBARRIER_H_
#define COM_COMMON_BASE_SERVICEBARRIER_H_

#include <ace/RW_Thread_Mutex.h>

#include "common/base/comexport.h"

class COM_EXPORT ServiceBarrier {
 public:
  // The process's barrier, created on first use under ACE's singleton lock
  // and never destroyed. Null (after logging at LM_CRITICAL
  // "ServiceBarrier::instance: Function get_singleton_lock failed!!!\n")
  // when ACE gives no singleton lock (during its own start-up or shutdown).
  static ServiceBarrier* instance();

  // Begins the start phase: takes the write lock, waiting for workers that
  // are passing at this moment.
  void start();
  // Ends the start phase begun by start() on this thread.
  void end();
  // Blocks while a start phase is in progress; returns at once otherwise.
  void wait();

 private:
  ServiceBarrier() = default;
  ServiceBarrier(const ServiceBarrier&) = delete;
  ServiceBarrier& operator=(const ServiceBarrier&) = delete;

  ACE_RW_Thread_Mutex lock_;
};

#endif  // COM_COMMON_BASE_SERVICEBARRIER_H_
