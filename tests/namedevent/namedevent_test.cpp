#include "common/namedevent/namedevent.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

#include "common/namedevent/internal/sharedevent.h"

#include "support/childprocess.h"
#include "support/logcapture.h"
#include "support/runas.h"
#include "support/waitfor.h"

namespace {

using Common::NamedEvent;
using Common::internal::SharedEvent;

std::string UniqueName(const char* what) {
  return std::string("Global\\ComTest_NE_") + what + "_" +
         std::to_string(static_cast<int>(::getpid()));
}

bool IsSignaled(const NamedEvent& ev) {
  ACE_Time_Value now = ACE_OS::gettimeofday();
  return static_cast<SharedEvent*>(ev.handle())->Wait(&now) == 0;
}

// Starts the child helper on the event `name`; true once it is ready.
bool StartOn(testsupport::ChildProcess& child, const std::string& name) {
  std::string line;
  return child.Start({testsupport::ChildProgram(), "event", name}) &&
         child.ReadLine(&line) && line == "ready";
}

// Has `child` wait; true once its (only) thread sleeps in a futex.
bool WaitBlocked(testsupport::ChildProcess& child, const char* ms) {
  const std::string wchan = "/proc/" + std::to_string(child.pid()) + "/wchan";
  return child.Send(std::string("w ") + ms) && testsupport::WaitFor([&] {
           std::ifstream in(wchan);
           std::string text;
           std::getline(in, text);
           return text.find("futex") != std::string::npos;
         });
}

TEST(NamedEvent, BadNameThrowsAfterLoggingAtDebug) {
  testsupport::LogCapture log;
  EXPECT_EQ("NamedEvent: Unable to initialize named event",
            testsupport::Thrown<std::runtime_error>(
                [] { NamedEvent ev(ACE_CString("")); }));
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_DEBUG, log.records()[0].priority);
  EXPECT_EQ(0u, log.records()[0].text.find(
                    "NamedEvent: Unable to initialize named event: "));
}

// A pulse releases every process blocked in a wait and leaves the event
// clear, even if it was signalled.
TEST(NamedEvent, PulseWakesThePresentWaitersAndLeavesItClear) {
  std::string name = UniqueName("pulse");
  NamedEvent ev(name.c_str());
  testsupport::ChildProcess waiters[3];
  for (auto& w : waiters) ASSERT_TRUE(StartOn(w, name));
  for (auto& w : waiters) ASSERT_TRUE(WaitBlocked(w, "20000"));
  ASSERT_EQ(0, ev.pulse());
  for (auto& w : waiters) {
    std::string line;
    ASSERT_TRUE(w.ReadLine(&line, 5000));
    EXPECT_EQ("1", line);
  }
  EXPECT_EQ("0", waiters[0].Ask("w 100"));
  ASSERT_EQ(0, ev.signal());
  ASSERT_EQ(0, ev.pulse());
  EXPECT_FALSE(IsSignaled(ev));
}

// A holder killed with SIGKILL at any point of its work must not leave a
// stale signalled event for the next opener, nor anyone blocked.
TEST(NamedEvent, HolderKilledAtAnyMomentLeavesFreshEventAndNobodyBlocked) {
  std::string name = UniqueName("kill");
  std::mt19937 rng(1234);
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE(round);
    const bool withWaiter = round % 2 == 1;
    testsupport::ChildProcess waiter, victim;
    if (withWaiter) {
      ASSERT_TRUE(StartOn(waiter, name));
    }
    ASSERT_TRUE(victim.Start({testsupport::ChildProgram(), "churn", name}));
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 30000));
    ::kill(victim.pid(), SIGKILL);
    victim.Finish();
    auto start = std::chrono::steady_clock::now();
    NamedEvent ev(name.c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(2));
    if (!withWaiter) {
      EXPECT_FALSE(IsSignaled(ev)) << "a stale state survived its holders";
      continue;
    }
    ASSERT_EQ(0, ev.reset());
    ASSERT_TRUE(WaitBlocked(waiter, "10000"));
    ASSERT_EQ(0, ev.signal());
    std::string line;
    ASSERT_TRUE(waiter.ReadLine(&line, 5000));
    EXPECT_EQ("1", line);
  }
}

// Root's event, made under umask 077, opens and signals for another user.
TEST(NamedEvent, AnotherUserOpensAndSignalsRootsEvent) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to switch users";
  std::string name = UniqueName("nobody");
  mode_t old = ::umask(077);
  NamedEvent ev(name.c_str());
  ::umask(old);
  std::string result;
  ASSERT_TRUE(testsupport::RunUnprivileged(
      [&name]() -> std::string {
        try {
          return NamedEvent(name.c_str()).signal() == 0 ? "ok" : "failed";
        } catch (const std::exception& e) {
          return e.what();
        }
      },
      &result))
      << result;
  EXPECT_EQ("ok", result);
  EXPECT_TRUE(IsSignaled(ev));
}

}  // namespace
