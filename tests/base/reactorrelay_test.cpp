#include "common/base/internal/reactorrelay.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <unistd.h>

#include <ace/Reactor.h>
#include <ace/Thread.h>

#include <gtest/gtest.h>

#include "common/namedevent/namedevent.h"

namespace {

using Kelvane::internal::ReactorRelay;

// Counts the calls and notes whether they came on the reactor's thread.
class Counter : public ACE_Event_Handler {
 public:
  int handle_signal(int, siginfo_t*, ucontext_t*) override {
    if (ACE_Thread::self() != reactorThread) wrongThread = true;
    ++calls;
    return 0;
  }
  std::atomic<int> calls{0};
  std::atomic<bool> wrongThread{false};
  ACE_thread_t reactorThread{};
};

// Runs ACE_Reactor::instance()'s loop on a thread of its own.
class ReactorThread {
 public:
  explicit ReactorThread(Counter* c) {
    std::atomic<bool> started{false};
    thread_ = std::thread([c, &started] {
      ACE_Reactor::instance()->owner(ACE_Thread::self());
      c->reactorThread = ACE_Thread::self();
      started = true;
      ACE_Reactor::instance()->run_reactor_event_loop();
    });
    while (!started) std::this_thread::yield();
  }
  ~ReactorThread() {
    ACE_Reactor::instance()->end_event_loop();
    thread_.join();
    ACE_Reactor::instance()->reset_event_loop();
  }

 private:
  std::thread thread_;
};

size_t ThreadCount() {
  size_t n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/self/task");
       it != std::filesystem::directory_iterator(); ++it)
    ++n;
  return n;
}

bool AwaitCalls(const Counter& c, int want) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (c.calls < want && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return c.calls == want;
}

std::string Name(const char* what) {
  return std::string("Global\\ComTest_Relay_") + what + "_" +
         std::to_string(static_cast<int>(::getpid()));
}

TEST(ReactorRelay, EachSignalAndPulseReachesTheReactorThreadOnce) {
  Common::NamedEvent ev(Name("edges").c_str());
  Counter counter;
  ReactorThread loop(&counter);
  ASSERT_EQ(0, ev.signal());  // already signalled when the relay starts
  const size_t threadsBefore = ThreadCount();
  ReactorRelay relay;
  ASSERT_EQ(0, relay.WatchEvent(&counter, ev.handle()));
  EXPECT_TRUE(AwaitCalls(counter, 1));
  ev.signal();  // still signalled: no new edge
  ev.reset();
  ev.signal();
  EXPECT_TRUE(AwaitCalls(counter, 2));
  ev.reset();
  ev.pulse();
  EXPECT_TRUE(AwaitCalls(counter, 3));
  relay.Stop();
  // The waiting thread is gone once Stop returns, and nothing more arrives.
  EXPECT_EQ(threadsBefore, ThreadCount());
  ev.reset();
  ev.signal();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(3, counter.calls);
  EXPECT_FALSE(counter.wrongThread);
}

// Relays start and stop while another thread signals and resets: no call
// after Stop, no thread left, nothing racy.
TEST(ReactorRelay, StartStopUnderSignalStress) {
  Common::NamedEvent ev(Name("stress").c_str());
  Counter counter;
  ReactorThread loop(&counter);
  const size_t threadsBefore = ThreadCount();
  std::atomic<bool> done{false};
  std::thread toggler([&] {
    while (!done) {
      ev.signal();
      ev.reset();
      ev.pulse();
    }
  });
  for (int i = 0; i < 40; ++i) {
    ReactorRelay relay;
    ASSERT_EQ(0, relay.WatchEvent(&counter, ev.handle()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    relay.Stop();
    int after = counter.calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(after, counter.calls);
  }
  done = true;
  toggler.join();
  EXPECT_EQ(threadsBefore, ThreadCount());
  EXPECT_GT(counter.calls, 0);
  EXPECT_FALSE(counter.wrongThread);
}

}  // namespace
