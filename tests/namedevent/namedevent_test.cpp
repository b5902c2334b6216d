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

// True once every thread of `pid` sleeps in a futex wait (the main thread
// is the only one the child helper has).
bool SleepsInFutex(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/wchan");
  std::string wchan;
  std::getline(in, wchan);
  return wchan.find("futex") != std::string::npos;
}

template <class Pred>
bool Eventually(Pred pred, int ms = 5000) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < until) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

// Starts the child helper on the event `name`; true once it is ready.
bool StartOn(testsupport::ChildProcess& child, const std::string& name) {
  std::string line;
  return child.Start({testsupport::ChildProgram(), "event", name}) &&
         child.ReadLine(&line) && line == "ready";
}

// Has `child` wait, and true once it blocks in the wait.
bool WaitBlocked(testsupport::ChildProcess& child, const char* ms) {
  const pid_t pid = child.pid();
  return child.Send(std::string("w ") + ms) &&
         Eventually([pid] { return SleepsInFutex(pid); });
}

TEST(NamedEvent, BadNameThrowsAfterLoggingAtDebug) {
  testsupport::LogCapture log;
  try {
    NamedEvent ev(ACE_CString(""));
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("NamedEvent: Unable to initialize named event", e.what());
  }
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_DEBUG, log.records()[0].priority);
  EXPECT_EQ(0u, log.records()[0].text.find(
                    "NamedEvent: Unable to initialize named event: "));
}

// Three processes block in a wait; a pulse releases all three and leaves
// the event clear, so a wait begun after it times out.
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
  EXPECT_FALSE(IsSignaled(ev));
  EXPECT_EQ("0", waiters[0].Ask("w 100"));
  ASSERT_EQ(0, ev.signal());  // a pulse clears a signalled event too
  ASSERT_EQ(0, ev.pulse());
  EXPECT_FALSE(IsSignaled(ev));
}

// The event lives while a process holds it; a holder killed with SIGKILL
// (signalled, or at any point of its work) must not leave a stale signalled
// event for the next opener, nor leave anyone blocked.
TEST(NamedEvent, HolderKilledAtAnyMomentLeavesFreshEventAndNobodyBlocked) {
  std::string name = UniqueName("kill");
  {
    testsupport::ChildProcess holder;
    ASSERT_TRUE(StartOn(holder, name));
    ASSERT_EQ("ok", holder.Ask("s"));
    ::kill(holder.pid(), SIGKILL);
    holder.Finish();
    EXPECT_TRUE(std::ifstream(SharedEvent::PathFor(name.c_str()).c_str()))
        << "the dead holder could not remove the file";
    EXPECT_FALSE(IsSignaled(NamedEvent(name.c_str())));
  }
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
    // Opening must not hang on anything the victim held.
    auto start = std::chrono::steady_clock::now();
    NamedEvent ev(name.c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(2));
    if (!withWaiter) {
      EXPECT_FALSE(IsSignaled(ev)) << "a stale state survived its holders";
      continue;
    }
    // The surviving waiter blocks and is woken by a signal.
    ASSERT_EQ(0, ev.reset());
    ASSERT_TRUE(WaitBlocked(waiter, "10000"));
    ASSERT_EQ(0, ev.signal());
    std::string line;
    ASSERT_TRUE(waiter.ReadLine(&line, 5000));
    EXPECT_EQ("1", line);
    EXPECT_EQ(0, waiter.Finish());
  }
}

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
          NamedEvent other(name.c_str());
          return other.signal() == 0 ? "ok" : "signal failed";
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
