// Synchronous event delivery: ObserverManager's PostEvent to four observers
// against boost::signals2 (a signal with four slots) and POCO's
// NotificationCenter (four observers, one notification object reused);
// posting from 1, 2 and 8 threads, each on its own source; and
// Publisher::publish to four subscribers against a std::function vector.
#include <Poco/AutoPtr.h>
#include <Poco/NObserver.h>
#include <Poco/Notification.h>
#include <Poco/NotificationCenter.h>
#include <boost/signals2.hpp>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <ace/Log_Msg.h>

#include <benchmark/benchmark.h>

#include "common/base/observable.h"
#include "common/base/observer.h"
#include "common/base/publisher.h"

namespace {

constexpr int kSinks = 4;
constexpr int kMaxThreads = 8;

class CountingObserver : public Observer {
 public:
  CountingObserver() : Observer("bench") {}
  void HandleEvent(Observable*, unsigned int event, void*) override {
    sum_ += event;
  }

 private:
  unsigned long sum_ = 0;
};

// One source with four observers per thread, built before the runs, each on
// cache lines of its own.
struct alignas(64) Source {
  Source() : observable("bench") {
    for (auto& o : observers) o.Observe(&observable, 1);
  }
  Observable observable;
  CountingObserver observers[kSinks];
};
Source* g_sources[kMaxThreads];

struct alignas(64) Slots {
  Slots() {
    for (int i = 0; i < kSinks; ++i) {
      signal.connect([this](unsigned int event, void*) { sum += event; });
    }
  }
  boost::signals2::signal<void(unsigned int, void*)> signal;
  unsigned long sum = 0;
};
Slots* g_slots[kMaxThreads];

void ComPost(benchmark::State& state) {
  Observable& source = g_sources[state.thread_index()]->observable;
  unsigned int event = 1;
  for (auto _ : state) source.PostEvent(event, nullptr);
  state.SetItemsProcessed(state.iterations());
}

void Signals2Post(benchmark::State& state) {
  auto& signal = g_slots[state.thread_index()]->signal;
  for (auto _ : state) signal(1u, nullptr);
  state.SetItemsProcessed(state.iterations());
}

class PocoSink {
 public:
  void handle(const Poco::AutoPtr<Poco::Notification>& n) {
    benchmark::DoNotOptimize(n.get());
    ++count_;
  }

 private:
  unsigned long count_ = 0;
};

void PocoPost(benchmark::State& state) {
  Poco::NotificationCenter center;
  PocoSink sinks[kSinks];
  for (auto& s : sinks) {
    center.addObserver(
        Poco::NObserver<PocoSink, Poco::Notification>(s, &PocoSink::handle));
  }
  Poco::Notification::Ptr note(new Poco::Notification);
  for (auto _ : state) center.postNotification(note);
  for (auto& s : sinks) {
    center.removeObserver(
        Poco::NObserver<PocoSink, Poco::Notification>(s, &PocoSink::handle));
  }
  state.SetItemsProcessed(state.iterations());
}

class CountingSubscriber : public Subscriber<int, char*> {
 public:
  void notify(const int& key, char* const&) override { sum_ += key; }

 private:
  long sum_ = 0;
};

// What the machine gives threads that share nothing: four calls through a
// std::function vector of their own.
struct alignas(64) Calls {
  Calls() {
    for (int i = 0; i < kSinks; ++i) {
      calls.emplace_back([this](unsigned int event, void*) { sum += event; });
    }
  }
  std::vector<std::function<void(unsigned int, void*)>> calls;
  unsigned long sum = 0;
};
Calls* g_calls[kMaxThreads];

void FunctionVectorPost(benchmark::State& state) {
  Calls& own = *g_calls[state.thread_index()];
  for (auto _ : state) {
    for (auto& f : own.calls) f(1u, nullptr);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

void ComPublish(benchmark::State& state) {
  Publisher<int, char*> publisher;
  CountingSubscriber subscribers[kSinks];
  for (auto& s : subscribers) publisher.subscribe(7, &s);
  publisher.subscribe(3, &subscribers[0]);  // another key beside
  char text[] = "x";
  char* value = text;
  for (auto _ : state) benchmark::DoNotOptimize(publisher.publish(7, value));
}

void FunctionVectorPublish(benchmark::State& state) {
  std::vector<std::function<void(const int&, char* const&)>> subscribers;
  long sum = 0;
  for (int i = 0; i < kSinks; ++i) {
    subscribers.emplace_back(
        [&sum](const int& key, char* const&) { sum += key; });
  }
  char text[] = "x";
  char* value = text;
  for (auto _ : state) {
    for (auto& f : subscribers) f(7, value);
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(sum);
}

}  // namespace

int main(int argc, char** argv) {
  // A server has many threads, and glibc drops the bus lock from its mutexes
  // while a process has only one: a parked thread keeps every run, the
  // single-threaded ones too, on the multi-threaded path.
  std::mutex park_mu;
  std::condition_variable park_cv;
  bool done = false;
  std::thread parked([&] {
    std::unique_lock<std::mutex> lock(park_mu);
    park_cv.wait(lock, [&] { return done; });
  });
  // Every Observable and Observer logs its birth at LM_DEBUG.
  ACE_LOG_MSG->priority_mask(
      ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS) & ~LM_DEBUG,
      ACE_Log_Msg::PROCESS);
  for (int i = 0; i < kMaxThreads; ++i) {
    g_sources[i] = new Source;
    g_slots[i] = new Slots;
    g_calls[i] = new Calls;
  }
  // Names are "<case>/<impl>"; the threaded runs get "/real_time/threads:N".
  benchmark::RegisterBenchmark("post4/com", ComPost);
  benchmark::RegisterBenchmark("post4/signals2", Signals2Post);
  benchmark::RegisterBenchmark("post4/poco", PocoPost);
  for (int threads : {1, 2, 8}) {
    benchmark::RegisterBenchmark("post4_parallel/com", ComPost)
        ->Threads(threads)
        ->UseRealTime();
    benchmark::RegisterBenchmark("post4_parallel/signals2", Signals2Post)
        ->Threads(threads)
        ->UseRealTime();
    benchmark::RegisterBenchmark("post4_parallel/function_vector",
                                 FunctionVectorPost)
        ->Threads(threads)
        ->UseRealTime();
  }
  benchmark::RegisterBenchmark("publish4/com", ComPublish);
  benchmark::RegisterBenchmark("publish4/function_vector",
                               FunctionVectorPublish);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  {
    std::lock_guard<std::mutex> lock(park_mu);
    done = true;
  }
  park_cv.notify_one();
  parked.join();
  return 0;
}
