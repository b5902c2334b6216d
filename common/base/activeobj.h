// Active objects and method requests.
//
// An ActiveObj is a named pool of worker threads serving one queue of
// MethodRequest objects, larger priority first and arrival order among
// equals. Code anywhere hands a request to the object the request names
// (GetActiveObj()); a worker takes it off the queue and runs ExecuteImpl()
// under the request's lock; a caller may block until it completes. Every
// ActiveObj of the process is kept in one registry by name, so stopAll()
// stops them together.
//
// Which thread runs what:
//   - Schedule, ScheduleAndWait, Activate and insert: any thread.
//   - ExecuteImpl and commandExecuted: a worker thread of the object, after
//     the worker has passed the ServiceBarrier.
//   - Delayed requests (a non-zero delay) and the watchdog tick
//     (handle_timeout): the thread that runs the event loop of
//     ACE_Reactor::instance(). The library runs no reactor loop of its own;
//     the hosting process (or a test) does, and without one a delayed
//     request never reaches its queue.
//   - stop and stopAll: any thread but a worker of an object being stopped
//     (it would wait for itself).
//
// Ownership: requests are held by MethodRequestPtr. While a request is
// queued, delayed or running it holds a reference to itself ("self"), so
// the caller may drop its own pointer at once.
//
//   class Save : public MethodRequest {
//    public:
//     ActiveObj* GetActiveObj() override { return SimpleScheduler::Instance();
//     } const char* GetName() override { return "Save"; }
//    protected:
//     int ExecuteImpl() override { return WriteFile(); }
//   };
//   MethodRequest::ScheduleAndWait(MethodRequestPtr(new Save),
//                                  Kelvane::NORMAL_PRIORITY);
//
// Log lines carry the unit path common/base/activeobj; failures are logged
// at LM_CRITICAL and nothing is thrown out of a worker.
#ifndef COM_COMMON_BASE_ACTIVEOBJ_H_
#define COM_COMMON_BASE_ACTIVEOBJ_H_

#include <atomic>
#include <map>
#include <vector>

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SString.h>
#include <ace/Task_T.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"
#include "common/base/smartptr.h"

namespace Kelvane {

// The priority of a request, used as its ACE message priority; larger runs
// first. Any int value may be passed (static_cast) besides the names here.
enum CommandPriority : int {
  LOW_PRIORITY = 10,
  // Ordinary requests; also the priority of a graceful stop.
  NORMAL_PRIORITY = 30,
  HIGH_PRIORITY = 45,
  // Watchdog requests and urgent stops. A request queued with exactly this
  // priority travels as an MB_PROTO message (a "non user command" in
  // dumpQueue), every other priority as MB_USER.
  TOP_PRIORITY = 60
};

}  // namespace Kelvane

class ActiveObj;
class DelayedCommand;
class MethodRequest;

typedef Kelvane::SmartPtr<MethodRequest, Kelvane::BasicDelete<MethodRequest>,
                          ACE_Thread_Mutex>
    MethodRequestPtr;
typedef Kelvane::auto_ptr<MethodRequest, Kelvane::BasicDelete<MethodRequest>>
    MethodRequestAutoPtr;

// A command run by an ActiveObj's worker. Derive, implement GetActiveObj,
// GetName and ExecuteImpl, create on the heap and hand to Schedule,
// ScheduleAndWait or Activate.
class COM_EXPORT MethodRequest {
 public:
  MethodRequest();
  virtual ~MethodRequest();

  // The object whose workers run this request; never null.
  virtual ActiveObj* GetActiveObj() = 0;
  // The name used in every log line about the request.
  virtual const char* GetName() = 0;

  // Queues the request on GetActiveObj() with `priority`, at once when
  // `delay` is ACE_Time_Value::zero, else after `delay` through a
  // DelayedCommand (the reactor's thread queues it). Sets self and gives
  // the request a fresh completion record (replacing any earlier one), so
  // Wait() blocks until this run completes. A null pointer is ignored.
  static void Schedule(const MethodRequestPtr& request,
                       Kelvane::CommandPriority priority,
                       const ACE_Time_Value& delay = ACE_Time_Value::zero);
  // Schedule without delay, then Wait(): returns once the request
  // completed, or once a stop discarded it (see ActiveObj::stop).
  static void ScheduleAndWait(const MethodRequestPtr& request,
                              Kelvane::CommandPriority priority);
  // Fire and forget: takes ownership and queues as Schedule does, but
  // creates no completion record, so Wait() on such a request returns -1 at
  // once and IsCompleted() is true from the start. A null pointer is
  // ignored.
  static void Activate(MethodRequestAutoPtr request,
                       Kelvane::CommandPriority priority,
                       const ACE_Time_Value& delay = ACE_Time_Value::zero);

  // ExecuteImpl() and its result, without locking or logging.
  int Execute();
  // -1 at once without a completion record. Otherwise blocks, without
  // limit, until the record is signalled and returns 0; -1 if the wait on
  // the condition fails.
  int Wait();
  // True without a completion record or once it was signalled.
  bool IsCompleted();
  // Signals the completion record (waiters return); the first signal wins.
  void SetReady();
  // A flag for the request's own code; the library never reads it.
  void Cancel();
  bool Canceled();

 protected:
  // The work. Returning 1 means "not finished": the request stays alive
  // (self is kept) and its waiters keep waiting; typically it has just
  // re-queued itself with Reactivate. Any other value completes it. A
  // std::exception (or a pointer to one) thrown here is logged and leaves
  // the request uncompleted until its object is stopped.
  virtual int ExecuteImpl() = 0;

  // Re-queues the request through its self reference, at once or after
  // `delay`; keeps the completion record. 0, or -1 when self is empty.
  int Reactivate(Kelvane::CommandPriority priority,
                 const ACE_Time_Value& delay = ACE_Time_Value::zero);
  // Moves self into `request`: the request no longer keeps itself alive.
  void Release(MethodRequestPtr& request);
  MethodRequestPtr Self();
  // Held by the worker from just before ExecuteImpl until the request is
  // completed. Recursive (unlike ACE_Thread_Mutex on this platform): code
  // run from ExecuteImpl may take it again on the worker's thread. Other
  // threads take it to exclude the request's execution.
  ACE_Recursive_Thread_Mutex& Lock();

 private:
  friend class ActiveObj;
  friend class DelayedCommand;
  struct Completion;

  MethodRequest(const MethodRequest&) = delete;
  MethodRequest& operator=(const MethodRequest&) = delete;

  // Queues on the object now or through a DelayedCommand.
  void Enqueue(Kelvane::CommandPriority priority, const ACE_Time_Value& delay);
  void Signal(int value);

  std::atomic<bool> canceled_;
  Completion* completion_;
  MethodRequestPtr self_;
  ACE_Recursive_Thread_Mutex lock_;
};

// A named pool of worker threads serving a priority queue of requests.
class COM_EXPORT ActiveObj
    : public ACE_Task<ACE_MT_SYNCH, ACE_System_Time_Policy> {
 public:
  typedef std::multimap<ACE_CString, ActiveObj*> Registry;

  // Registers the object under `name` (several objects may share a name).
  // Both water marks of the queue are 1,048,576 bytes; a request takes one
  // byte, so inserters block only beyond about a million queued requests.
  // No thread starts here; requests inserted before run() wait.
  ActiveObj(const char* name, unsigned int queueWarningThreshold);
  // Removes the object from the registry (logging at LM_CRITICAL if it is
  // not there). It does not stop the threads: call stop() first.
  ~ActiveObj() override;

  // Starts `threadCount` workers at `threadPriority` (0 for the ordinary
  // scheduling class). Returns what ACE_Task_Base::activate returns: 0, -1
  // on failure, 1 if the object already has threads.
  int run(int threadCount, int threadPriority);

  // The watchdog tick (reactor thread): queues a new WatchDogTimerRequest
  // with the watchdog timeout at TOP_PRIORITY. Returns 0.
  int handle_timeout(const ACE_Time_Value& now, const void* act) override;
  // The worker loop.
  int svc() override;

  // Stops the workers and empties the queue; always returns 0. Cancels the
  // watchdog. Without threads (never run, or stopped) it returns at once,
  // leaving the queue as it is. Otherwise it puts a hang-up message at the
  // head of the queue, which each worker passes on by priority before it
  // ends. An urgent stop (TOP_PRIORITY) stays ahead of all ordinary
  // requests, which are then discarded. A graceful stop (NORMAL_PRIORITY)
  // goes behind every queued request of priority 30 or more, which still
  // run: the worker that takes it first passes it on and keeps serving, so
  // this holds with a single worker too. Then it waits for the workers and
  // discards what is left in the queue, clearing each request's self and
  // waking its waiters without running it. Requests whose ExecuteImpl threw
  // are completed the same way, so their waiters return too. Requests
  // inserted after that stay queued (pending()) until run() again.
  virtual int stop(bool urgent);
  // stop(urgent) on every registered object in name order, under the
  // registry lock: an ActiveObj must not be created or destroyed from a
  // request that runs meanwhile.
  static void stopAll(bool urgent);

  // Number of queued messages.
  unsigned int pending();
  // Logs every queued message at LM_DEBUG, head first, under the queue's
  // lock.
  virtual void dumpQueue();
  // Queues `request` by priority (its self must keep it alive). Logs
  // "PERFORMANCE WARNING: %s has %d items in the queue.\n" at LM_CRITICAL
  // when the count before the insertion is at least the warning threshold
  // and a multiple of 1024 (with a threshold of 0, also for an empty
  // queue).
  virtual void insert(MethodRequest& request,
                      Kelvane::CommandPriority priority);

  const char* name() const;

  // Replaces any watchdog of this object: every `intervalSeconds` the
  // reactor's thread queues a WatchDogTimerRequest, which ends the process
  // if no worker runs it within `timeoutSeconds`.
  void ActivateWatchDogTimer(int intervalSeconds, int timeoutSeconds);
  // Workers started afterwards turn off the scheduler's dynamic priority
  // boost for their thread (nothing to turn off on Linux).
  void DisableThreadPriorityBoost();

  // A copy of the registry.
  static Registry getAllSchedulers();
  // Turns the per-request "Executing" and "Completed" lines on or off
  // (on at start).
  static void SetLoggingEnabled(bool enabled);

 protected:
  // Called on the worker after every ExecuteImpl, also after one that
  // threw, with the request's lock held. Does nothing here.
  virtual void commandExecuted(MethodRequest& request);

 private:
  ActiveObj(const ActiveObj&) = delete;
  ActiveObj& operator=(const ActiveObj&) = delete;

  void RunRequest(MethodRequest* request);
  // Completes, without running them, the queued requests and those whose
  // execution threw.
  void Discard();

  std::atomic<int> watchDogTimeout_;
  unsigned int queueWarningThreshold_;
  ACE_CString name_;
  std::atomic<bool> disablePriorityBoost_;
  std::atomic<bool> watchDogArmed_;
  // Requests whose ExecuteImpl threw; stop() completes them.
  ACE_Thread_Mutex strandedLock_;
  std::vector<MethodRequestPtr> stranded_;
};

#endif  // COM_COMMON_BASE_ACTIVEOBJ_H_
