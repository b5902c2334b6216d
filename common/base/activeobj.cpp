#include "common/base/activeobj.h"

#include <cstdint>
#include <exception>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Guard_T.h>
#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>

#include "common/base/comlog.h"
#include "common/base/delayedcommand.h"
#include "common/base/internal/requestqueue.h"
#include "common/base/servicebarrier.h"
#include "common/base/watchdogtimerrequest.h"
#include "common/os/osfile.h"

namespace {

const size_t kWaterMark = 0x100000;
const unsigned int kWarningStep = 0x3FF;
// Marks a graceful hang-up that no worker has passed on yet.
const ACE_Message_Block::Message_Flags kFirstPass =
    ACE_Message_Block::USER_FLAGS;

// The registry and its lock live for the whole process: CPUScheduler is
// never destroyed and others may be destroyed from static destructors.
ActiveObj::Registry& TheRegistry() {
  static ActiveObj::Registry* registry = new ActiveObj::Registry;
  return *registry;
}

ACE_Thread_Mutex& RegistryLock() {
  static ACE_Thread_Mutex* lock = new ACE_Thread_Mutex;
  return *lock;
}

std::atomic<bool> g_logging{true};

bool IsRequest(const ACE_Message_Block* block) {
  return block->msg_type() == ACE_Message_Block::MB_USER ||
         block->msg_type() == ACE_Message_Block::MB_PROTO;
}

MethodRequest* RequestOf(ACE_Message_Block* block) {
  return reinterpret_cast<MethodRequest*>(block->base());
}

Kelvane::internal::RequestQueue* QueueOf(ActiveObj* object) {
  return static_cast<Kelvane::internal::RequestQueue*>(object->msg_queue());
}

}  // namespace

// ---------------------------------------------------------------- request

struct MethodRequest::Completion {
  Completion() : done(0), condition(mutex) {}
  int32_t done;
  ACE_Thread_Mutex mutex;
  ACE_Condition<ACE_Thread_Mutex> condition;
};

MethodRequest::MethodRequest() : canceled_(false), completion_(nullptr) {}

MethodRequest::~MethodRequest() { delete completion_; }

void MethodRequest::Schedule(const MethodRequestPtr& request,
                             Kelvane::CommandPriority priority,
                             const ACE_Time_Value& delay) {
  if (request.isNull()) return;
  MethodRequest* r = request.get();
  r->self_ = request;
  Completion* previous = r->completion_;
  r->completion_ = new Completion;
  delete previous;
  r->Enqueue(priority, delay);
}

void MethodRequest::ScheduleAndWait(const MethodRequestPtr& request,
                                    Kelvane::CommandPriority priority) {
  if (request.isNull()) return;
  Schedule(request, priority, ACE_Time_Value::zero);
  request.get()->Wait();
}

void MethodRequest::Activate(MethodRequestAutoPtr request,
                             Kelvane::CommandPriority priority,
                             const ACE_Time_Value& delay) {
  MethodRequestPtr held(request.release());
  if (held.isNull()) return;
  held.get()->self_ = held;
  held.get()->Enqueue(priority, delay);
}

void MethodRequest::Enqueue(Kelvane::CommandPriority priority,
                            const ACE_Time_Value& delay) {
  if (delay == ACE_Time_Value::zero) {
    GetActiveObj()->insert(*this, priority);
  } else {
    new DelayedCommand(self_, priority, delay);
  }
}

int MethodRequest::Reactivate(Kelvane::CommandPriority priority,
                              const ACE_Time_Value& delay) {
  if (self_.isNull()) return -1;
  Enqueue(priority, delay);
  return 0;
}

void MethodRequest::Release(MethodRequestPtr& request) {
  request = self_;
  self_.Release();
}

MethodRequestPtr MethodRequest::Self() { return self_; }

int MethodRequest::Execute() { return ExecuteImpl(); }

int MethodRequest::Wait() {
  Completion* completion = completion_;
  if (completion == nullptr) return -1;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, completion->mutex, -1);
  while (completion->done == 0) {
    if (completion->condition.wait() == -1) return -1;
  }
  return 0;
}

bool MethodRequest::IsCompleted() {
  Completion* completion = completion_;
  if (completion == nullptr) return true;
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, completion->mutex, false);
  return completion->done != 0;
}

void MethodRequest::Signal(int value) {
  Completion* completion = completion_;
  if (completion == nullptr) return;
  ACE_GUARD(ACE_Thread_Mutex, guard, completion->mutex);
  if (completion->done == 0) {
    completion->done = value;
    completion->condition.broadcast();
  }
}

void MethodRequest::SetReady() { Signal(1); }

void MethodRequest::Cancel() { canceled_.store(true); }

bool MethodRequest::Canceled() { return canceled_.load(); }

ACE_Recursive_Thread_Mutex& MethodRequest::Lock() { return lock_; }

// ---------------------------------------------------------------- object

ActiveObj::ActiveObj(const char* name, unsigned int queueWarningThreshold)
    : ACE_Task<ACE_MT_SYNCH, ACE_System_Time_Policy>(
          nullptr, new Kelvane::internal::RequestQueue),
      watchDogTimeout_(0),
      queueWarningThreshold_(queueWarningThreshold),
      name_(name),
      disablePriorityBoost_(false),
      watchDogArmed_(false) {
  msg_queue()->high_water_mark(kWaterMark);
  msg_queue()->low_water_mark(kWaterMark);
  ACE_GUARD(ACE_Thread_Mutex, guard, RegistryLock());
  TheRegistry().insert(Registry::value_type(name_, this));
}

ActiveObj::~ActiveObj() {
  {
    ACE_GUARD(ACE_Thread_Mutex, guard, RegistryLock());
    Registry& registry = TheRegistry();
    bool removed = false;
    for (Registry::iterator it = registry.find(name_);
         it != registry.end() && it->first == name_; ++it) {
      if (it->second == this) {
        registry.erase(it);
        removed = true;
        break;
      }
    }
    if (!removed) {
      COM_LOG((LM_CRITICAL,
               "ActiveObj::~ActiveObj: Could not remove %s from the ActiveObj "
               "list.\n",
               name_.c_str()));
    }
  }
  // The reactor must not keep a pointer to a destroyed watchdog. Objects
  // that never had one leave the reactor alone: they may be destroyed after
  // ACE's own shutdown.
  if (watchDogArmed_.load()) ACE_Reactor::instance()->cancel_timer(this, 1);
  ACE_Message_Queue<ACE_MT_SYNCH, ACE_System_Time_Policy>* queue = msg_queue();
  msg_queue(nullptr);
  delete queue;
}

int ActiveObj::run(int threadCount, int threadPriority) {
  COM_LOG((LM_DEBUG, "ActiveObj: Starting up %s with %d threads.\n",
           name_.c_str(), threadCount));
  return activate(0, threadCount, 0, threadPriority, -1, nullptr, nullptr,
                  nullptr, nullptr, nullptr, nullptr);
}

void ActiveObj::insert(MethodRequest& request,
                       Kelvane::CommandPriority priority) {
  // The block refers to the request without owning it. The queue answers
  // the count after the insertion, taken under its lock: one less is the
  // count this insertion found.
  const int after = QueueOf(this)->EnqueueData(
      reinterpret_cast<const char*>(&request),
      priority == Kelvane::TOP_PRIORITY ? ACE_Message_Block::MB_PROTO
                                        : ACE_Message_Block::MB_USER,
      static_cast<unsigned long>(priority));
  if (after == -1) return;
  const unsigned int before = static_cast<unsigned int>(after - 1);
  if (before >= queueWarningThreshold_ && (before & kWarningStep) == 0) {
    COM_LOG((LM_CRITICAL,
             "PERFORMANCE WARNING: %s has %d items in the queue.\n",
             name_.c_str(), static_cast<int>(before)));
  }
}

int ActiveObj::svc() {
  ServiceBarrier* barrier = ServiceBarrier::instance();
  if (barrier != nullptr) barrier->wait();
  if (disablePriorityBoost_.load()) Kelvane::DisableThreadPriorityBoost();
  COM_LOG((LM_STARTUP, "ActiveObj [%s]: Running.\n", name_.c_str()));

  Kelvane::internal::RequestQueue* queue = QueueOf(this);
  // The block of the request run last goes back to the queue for reuse
  // when the next one is taken.
  ACE_Message_Block* spent = nullptr;
  for (;;) {
    ACE_Message_Block* block = nullptr;
    // A hang-up is passed on by priority inside Take, so that every other
    // worker sees it too; a graceful one fresh from stop() only moves
    // behind the queued work that is still to run, also when a single
    // worker is there to run it.
    const Kelvane::internal::RequestQueue::TakeResult taken =
        queue->Take(block, spent, kFirstPass);
    spent = nullptr;
    switch (taken) {
      case Kelvane::internal::RequestQueue::kTaken:
        break;
      case Kelvane::internal::RequestQueue::kHangUpContinue:
        continue;
      case Kelvane::internal::RequestQueue::kHangUpLost:
        COM_LOG((LM_CRITICAL, "%p\n", "ungetq"));
        return -1;
      default:
        return 0;
    }
    if (IsRequest(block)) {
      spent = block;
      RunRequest(RequestOf(block));
    } else {
      block->release();
    }
  }
}

void ActiveObj::RunRequest(MethodRequest* request) {
  const MethodRequestPtr held = request->self_;
  const bool logging = g_logging.load(std::memory_order_relaxed);
  ACE_Time_Value start;
  if (logging) {
    COM_LOG((LM_DEBUG, "ActiveObj [%s]: Executing command %s\n", name_.c_str(),
             request->GetName()));
    start = ACE_OS::gettimeofday();
  }

  request->lock_.acquire();
  int result = 1;
  bool threw = false;
  try {
    result = request->ExecuteImpl();
  } catch (const std::exception& e) {
    threw = true;
    COM_LOG((LM_CRITICAL,
             "ActiveObj: Exception '%s' caught while executing command %s\n",
             e.what(), request->GetName()));
  } catch (const std::exception* e) {
    threw = true;
    COM_LOG((LM_CRITICAL,
             "ActiveObj: Exception '%s' caught while executing command %s\n",
             e != nullptr ? e->what() : "Unknown", request->GetName()));
  }
  commandExecuted(*request);
  if (logging) {
    const ACE_Time_Value end = ACE_OS::gettimeofday();
    const ACE_UINT64 elapsed = static_cast<ACE_UINT64>(end.get_msec()) -
                               static_cast<ACE_UINT64>(start.get_msec());
    COM_LOG((LM_DEBUG,
             "ActiveObj [%s]: Completed command %s in %Q "
             "milliseconds\n",
             name_.c_str(), request->GetName(), elapsed));
  }

  if (result != 1) {
    // self goes before the waiters wake: a woken caller may schedule the
    // request again at once, which sets self anew. `held` keeps the
    // request alive until this worker is done with it.
    request->self_.Release();
    request->Signal(1);
    request->lock_.release();
  } else {
    request->lock_.release();
    if (threw && !held.isNull()) {
      // Neither completed nor released: its waiters wait for stop().
      ACE_GUARD(ACE_Thread_Mutex, guard, strandedLock_);
      stranded_.push_back(held);
    }
  }
}

void ActiveObj::commandExecuted(MethodRequest&) {}

int ActiveObj::stop(bool urgent) {
  ACE_Reactor::instance()->cancel_timer(this, 1);
  if (thr_count() == 0) return 0;
  COM_LOG((LM_DEBUG, "ActiveObj: Shutting down %s.\n", name_.c_str()));

  ACE_Message_Block* hangup =
      new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP);
  hangup->msg_priority(urgent ? Kelvane::TOP_PRIORITY
                              : Kelvane::NORMAL_PRIORITY);
  if (!urgent) hangup->set_self_flags(kFirstPass);
  if (ungetq(hangup) == -1) hangup->release();
  wait();
  Discard();
  return 0;
}

void ActiveObj::Discard() {
  // Taken off under the queue's lock in one step; whatever is inserted from
  // now on stays queued.
  ACE_Message_Block* block = QueueOf(this)->TakeAll();
  while (block != nullptr) {
    ACE_Message_Block* next = block->next();
    block->next(nullptr);
    block->prev(nullptr);
    if (IsRequest(block)) {
      MethodRequest* request = RequestOf(block);
      const MethodRequestPtr held = request->self_;
      request->self_.Release();
      request->Signal(1);
    }
    block->release();
    block = next;
  }

  std::vector<MethodRequestPtr> stranded;
  {
    ACE_GUARD(ACE_Thread_Mutex, guard, strandedLock_);
    stranded.swap(stranded_);
  }
  for (MethodRequestPtr& request : stranded) {
    if (!request->IsCompleted()) {
      request->self_.Release();
      request->Signal(1);
    }
  }
}

void ActiveObj::stopAll(bool urgent) {
  ACE_GUARD(ACE_Thread_Mutex, guard, RegistryLock());
  for (const Registry::value_type& entry : TheRegistry()) {
    entry.second->stop(urgent);
  }
}

unsigned int ActiveObj::pending() {
  return static_cast<unsigned int>(msg_queue()->message_count());
}

void ActiveObj::dumpQueue() {
  Kelvane::internal::RequestQueue* queue = QueueOf(this);
  ACE_GUARD(ACE_Thread_Mutex, guard, queue->lock());
  int position = 0;
  for (ACE_Message_Block* block = queue->HeadLocked(); block != nullptr;
       block = block->next()) {
    const int priority = static_cast<int>(block->msg_priority());
    if (block->msg_type() == ACE_Message_Block::MB_USER) {
      COM_LOG((LM_DEBUG,
               "ActiveObj::dumpQueue: Command %s queued in position %d, "
               "priority = %d\n",
               RequestOf(block)->GetName(), position++, priority));
    } else {
      COM_LOG((LM_DEBUG,
               "ActiveObj::dumpQueue: Non user command %d, priority = %d\n",
               static_cast<int>(block->msg_type()), priority));
    }
  }
}

const char* ActiveObj::name() const { return name_.c_str(); }

void ActiveObj::ActivateWatchDogTimer(int intervalSeconds, int timeoutSeconds) {
  ACE_Reactor* reactor = ACE_Reactor::instance();
  reactor->cancel_timer(this, 1);
  watchDogTimeout_.store(timeoutSeconds);
  watchDogArmed_.store(true);
  const ACE_Time_Value interval(intervalSeconds);
  reactor->schedule_timer(this, nullptr, interval, interval);
}

int ActiveObj::handle_timeout(const ACE_Time_Value&, const void*) {
  MethodRequest::Activate(MethodRequestAutoPtr(new WatchDogTimerRequest(
                              this, watchDogTimeout_.load())),
                          Kelvane::TOP_PRIORITY, ACE_Time_Value::zero);
  return 0;
}

void ActiveObj::DisableThreadPriorityBoost() {
  disablePriorityBoost_.store(true);
}

ActiveObj::Registry ActiveObj::getAllSchedulers() {
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, RegistryLock(), Registry());
  return TheRegistry();
}

void ActiveObj::SetLoggingEnabled(bool enabled) { g_logging.store(enabled); }
