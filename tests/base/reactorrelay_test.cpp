#include "common/base/internal/reactorrelay.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <unistd.h>

#include <ace/Reactor.h>
#include <ace/Thread.h>

#include <gtest/gtest.h>

#include "common/namedevent/namedevent.h"

#include "support/waitfor.h"

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

size_t ThreadCount() {
  return static_cast<size_t>(std::distance(
      std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// An event, a counting handler and ACE_Reactor::instance()'s loop on a thread
// of its own; the relay's thread must be gone after each test.
class ReactorRelayTest : public ::testing::Test {
 protected:
  ReactorRelayTest() {
    std::atomic<bool> started{false};
    loop_ = std::thread([this, &started] {
      ACE_Reactor::instance()->owner(ACE_Thread::self());
      counter_.reactorThread = ACE_Thread::self();
      started = true;
      ACE_Reactor::instance()->run_reactor_event_loop();
    });
    while (!started) std::this_thread::yield();
    threadsBefore_ = ThreadCount();
  }
  ~ReactorRelayTest() override {
    EXPECT_EQ(threadsBefore_, ThreadCount());
    EXPECT_FALSE(counter_.wrongThread);
    ACE_Reactor::instance()->end_event_loop();
    loop_.join();
    ACE_Reactor::instance()->reset_event_loop();
  }
  bool AwaitCalls(int want) {
    return testsupport::WaitFor([&] { return counter_.calls >= want; }) &&
           counter_.calls == want;
  }

  Common::NamedEvent ev_{(std::string("Global\\ComTest_Relay_") +
                          std::to_string(static_cast<int>(::getpid())))
                             .c_str()};
  Counter counter_;
  std::thread loop_;
  size_t threadsBefore_ = 0;
};

TEST_F(ReactorRelayTest, EachSignalAndPulseReachesTheReactorThreadOnce) {
  ASSERT_EQ(0, ev_.signal());  // already signalled when the relay starts
  ReactorRelay relay;
  ASSERT_EQ(0, relay.WatchEvent(&counter_, ev_.handle()));
  EXPECT_TRUE(AwaitCalls(1));
  ev_.signal();  // still signalled: no new edge
  ev_.reset();
  ev_.signal();
  EXPECT_TRUE(AwaitCalls(2));
  ev_.reset();
  ev_.pulse();
  EXPECT_TRUE(AwaitCalls(3));
}

// Relays start and stop while another thread signals and resets: no call
// after Stop returns, and (the fixture checks) no thread left.
TEST_F(ReactorRelayTest, StartStopUnderSignalStress) {
  std::atomic<bool> done{false};
  std::thread toggler([&] {
    while (!done) {
      ev_.signal();
      ev_.reset();
      ev_.pulse();
    }
  });
  for (int i = 0; i < 40; ++i) {
    ReactorRelay relay;
    ASSERT_EQ(0, relay.WatchEvent(&counter_, ev_.handle()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    relay.Stop();
    int after = counter_.calls;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(after, counter_.calls);
  }
  done = true;
  toggler.join();
  EXPECT_GT(counter_.calls, 0);
}

}  // namespace
