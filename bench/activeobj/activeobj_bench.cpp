// Active objects beside the floor of their design and two everyday peers.
//
//   handoff/<impl>/1000000    one producer hands a million commands to one
//                             worker and waits for the last: com (Activate,
//                             ScheduleAndWait on the last), a raw
//                             ACE_Task<ACE_MT_SYNCH> putq/getq of blocks
//                             carrying a function pointer, boost::asio
//                             io_context::post, POCO NotificationQueue and
//                             POCO ActiveDispatcher.
//   roundtrip/<impl>          one ScheduleAndWait against a raw task whose
//                             worker signals a condition variable.
//   registered/com/<n>        the hand-off of 10,000 commands with n active
//                             objects registered in the process.
//   enqueue_prio/<impl>/<d>   one insertion by priority into a queue holding
//                             d blocks of mixed priorities: com's queue
//                             against ACE's own ACE_Message_Queue.
#include <Poco/ActiveDispatcher.h>
#include <Poco/ActiveMethod.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Task_T.h>

#include <benchmark/benchmark.h>

#include "common/base/activeobj.h"
#include "common/base/internal/requestqueue.h"

namespace {

const int kHandoff = 1000000;

std::atomic<long> g_sink{0};
void Work() { g_sink.fetch_add(1, std::memory_order_relaxed); }

// ---------------------------------------------------------------- com

class Noop : public MethodRequest {
 public:
  explicit Noop(ActiveObj* target) : target_(target) {}
  ActiveObj* GetActiveObj() override { return target_; }
  const char* GetName() override { return "Noop"; }

 protected:
  int ExecuteImpl() override {
    Work();
    return 0;
  }

 private:
  ActiveObj* target_;
};

void ComHandoff(ActiveObj* object, int count) {
  for (int i = 1; i < count; ++i) {
    MethodRequest::Activate(MethodRequestAutoPtr(new Noop(object)),
                            Kelvane::NORMAL_PRIORITY);
  }
  MethodRequest::ScheduleAndWait(MethodRequestPtr(new Noop(object)),
                                 Kelvane::NORMAL_PRIORITY);
}

void BM_HandoffCom(benchmark::State& state) {
  ActiveObj::SetLoggingEnabled(false);
  ActiveObj object("Bench", 1u << 30);
  object.run(1, 0);
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) ComHandoff(&object, count);
  object.stop(true);
  state.SetItemsProcessed(state.iterations() * count);
}

// ---------------------------------------------------------------- raw task

typedef void (*Command)();

// Blocks carry the function to call; a hang-up ends the worker.
class RawTask : public ACE_Task<ACE_MT_SYNCH> {
 public:
  int svc() override {
    for (;;) {
      ACE_Message_Block* block = nullptr;
      if (getq(block) == -1) return 0;
      if (block->msg_type() == ACE_Message_Block::MB_HANGUP) {
        block->release();
        return 0;
      }
      Command command = reinterpret_cast<Command>(block->base());
      block->release();
      command();
    }
  }
  void Put(Command command) {
    putq(new ACE_Message_Block(reinterpret_cast<const char*>(command), 1));
  }
  void Stop() {
    putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP));
    wait();
  }
};

std::mutex g_doneLock;
std::condition_variable g_doneSignal;
bool g_done = false;

void Done() {
  std::lock_guard<std::mutex> hold(g_doneLock);
  g_done = true;
  g_doneSignal.notify_one();
}

void WaitDone() {
  std::unique_lock<std::mutex> hold(g_doneLock);
  g_doneSignal.wait(hold, [] { return g_done; });
  g_done = false;
}

void BM_HandoffRawTask(benchmark::State& state) {
  RawTask task;
  task.msg_queue()->high_water_mark(0x100000);
  task.msg_queue()->low_water_mark(0x100000);
  task.activate();
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 1; i < count; ++i) task.Put(&Work);
    task.Put(&Done);
    WaitDone();
  }
  task.Stop();
  state.SetItemsProcessed(state.iterations() * count);
}

// ---------------------------------------------------------------- asio

void BM_HandoffAsio(benchmark::State& state) {
  boost::asio::io_context context;
  auto guard = boost::asio::make_work_guard(context);
  std::thread worker([&] { context.run(); });
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 1; i < count; ++i) boost::asio::post(context, &Work);
    std::promise<void> last;
    boost::asio::post(context, [&last] { last.set_value(); });
    last.get_future().wait();
  }
  guard.reset();
  worker.join();
  state.SetItemsProcessed(state.iterations() * count);
}

// ---------------------------------------------------------------- POCO

class WorkNote : public Poco::Notification {};
class LastNote : public Poco::Notification {};
class StopNote : public Poco::Notification {};

class NoteWorker : public Poco::Runnable {
 public:
  explicit NoteWorker(Poco::NotificationQueue& queue) : queue_(queue) {}
  void run() override {
    for (;;) {
      Poco::AutoPtr<Poco::Notification> note(queue_.waitDequeueNotification());
      if (dynamic_cast<StopNote*>(note.get()) != nullptr) return;
      if (dynamic_cast<LastNote*>(note.get()) != nullptr) {
        Done();
      } else {
        Work();
      }
    }
  }

 private:
  Poco::NotificationQueue& queue_;
};

void BM_HandoffPocoQueue(benchmark::State& state) {
  Poco::NotificationQueue queue;
  NoteWorker worker(queue);
  Poco::Thread thread;
  thread.start(worker);
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 1; i < count; ++i) queue.enqueueNotification(new WorkNote);
    queue.enqueueNotification(new LastNote);
    WaitDone();
  }
  queue.enqueueNotification(new StopNote);
  thread.join();
  state.SetItemsProcessed(state.iterations() * count);
}

class Dispatched : public Poco::ActiveDispatcher {
 public:
  Dispatched() : run(this, &Dispatched::RunImpl) {}
  Poco::ActiveMethod<void, int, Dispatched,
                     Poco::ActiveStarter<Poco::ActiveDispatcher>>
      run;

 private:
  void RunImpl(const int&) { Work(); }
};

void BM_HandoffPocoDispatcher(benchmark::State& state) {
  Dispatched dispatcher;
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int i = 1; i < count; ++i) dispatcher.run(i);
    dispatcher.run(0).wait();
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// ---------------------------------------------------------------- round trip

void BM_RoundTripCom(benchmark::State& state) {
  ActiveObj::SetLoggingEnabled(false);
  ActiveObj object("Bench", 1u << 30);
  object.run(1, 0);
  for (auto _ : state) {
    MethodRequest::ScheduleAndWait(MethodRequestPtr(new Noop(&object)),
                                   Kelvane::NORMAL_PRIORITY);
  }
  object.stop(true);
}

void BM_RoundTripRawTask(benchmark::State& state) {
  RawTask task;
  task.activate();
  for (auto _ : state) {
    task.Put(&Done);
    WaitDone();
  }
  task.Stop();
}

// ---------------------------------------------------------------- registry

void BM_Registered(benchmark::State& state) {
  ActiveObj::SetLoggingEnabled(false);
  std::vector<std::unique_ptr<ActiveObj>> idle;
  for (int64_t i = 1; i < state.range(0); ++i) {
    idle.push_back(std::make_unique<ActiveObj>(
        ("Idle" + std::to_string(i)).c_str(), 1u << 30));
  }
  ActiveObj object("Bench", 1u << 30);
  object.run(1, 0);
  const int count = 10000;
  for (auto _ : state) ComHandoff(&object, count);
  object.stop(true);
  state.SetItemsProcessed(state.iterations() * count);
}

// ---------------------------------------------------------------- queue depth

// Holds `depth` blocks at priorities 10/30/45/60 in turn; each iteration
// inserts one at 30 (behind every 10 of ACE's walk) and takes the head.
template <class Queue>
void BM_EnqueuePrio(benchmark::State& state) {
  Queue queue;
  queue.high_water_mark(~static_cast<size_t>(0) >> 1);
  queue.low_water_mark(~static_cast<size_t>(0) >> 1);
  const unsigned long levels[] = {10, 30, 45, 60};
  for (int64_t i = 0; i < state.range(0); ++i) {
    queue.enqueue_prio(new ACE_Message_Block(nullptr, 1, levels[i % 4]));
  }
  ACE_Time_Value now = ACE_OS::gettimeofday();
  for (auto _ : state) {
    queue.enqueue_prio(new ACE_Message_Block(nullptr, 1, 30));
    ACE_Message_Block* head = nullptr;
    queue.dequeue_head(head, &now);
    head->release();
  }
  queue.flush();
}

void Register() {
  for (auto* b :
       {benchmark::RegisterBenchmark("handoff/com", BM_HandoffCom),
        benchmark::RegisterBenchmark("handoff/ace_task", BM_HandoffRawTask),
        benchmark::RegisterBenchmark("handoff/asio_post", BM_HandoffAsio),
        benchmark::RegisterBenchmark("handoff/poco_queue", BM_HandoffPocoQueue),
        benchmark::RegisterBenchmark("handoff/poco_dispatcher",
                                     BM_HandoffPocoDispatcher)}) {
    b->Arg(kHandoff)->Unit(benchmark::kMillisecond)->UseRealTime();
  }
  benchmark::RegisterBenchmark("roundtrip/com", BM_RoundTripCom)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("roundtrip/ace_task_cv", BM_RoundTripRawTask)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("registered/com", BM_Registered)
      ->Arg(1)
      ->Arg(100)
      ->Arg(10000)
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
  for (auto* b :
       {benchmark::RegisterBenchmark(
            "enqueue_prio/com",
            BM_EnqueuePrio<Kelvane::internal::RequestQueue>),
        benchmark::RegisterBenchmark(
            "enqueue_prio/ace",
            BM_EnqueuePrio<
                ACE_Message_Queue<ACE_MT_SYNCH, ACE_System_Time_Policy>>)}) {
    b->Arg(100)->Arg(1000)->Arg(10000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
