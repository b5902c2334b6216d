#include "common/base/shutdownevent.h"

#include <chrono>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/childprocess.h"

namespace {

using Clock = std::chrono::steady_clock;

// As root the children get a /dev/shm of their own, so that no other test
// process meets their "Global\KelvaneAllStop"; `first` is the child whose
// namespace the others join (0: make a new one).
std::vector<std::string> Isolated(pid_t first, std::vector<std::string> args) {
  args.insert(args.begin(), testsupport::ChildProgram());
  if (::geteuid() != 0) return args;
  if (first == 0) {
    args.insert(args.begin() + 1, "--private-shm");
  } else {
    args.insert(args.begin() + 1, {"--shm-of", std::to_string(first)});
  }
  return args;
}

// Every process holding a ShutDownEvent ends its loop when another process
// signals the machine-wide stop event, which then stays signalled.
TEST(ShutDownEvent, StopEventFromAnotherProcessEndsEveryLoop) {
  std::vector<std::unique_ptr<testsupport::ChildProcess>> services;
  for (int i = 0; i < 2; ++i) {
    services.emplace_back(new testsupport::ChildProcess);
    std::string line;
    ASSERT_TRUE(services.back()->Start(
                    Isolated(i == 0 ? 0 : services[0]->pid(), {"stopwatch"})) &&
                services.back()->ReadLine(&line) && line == "ready");
  }
  std::string line;
  EXPECT_FALSE(services[0]->ReadLine(&line, 200)) << line;  // still running
  testsupport::ChildProcess signaller;
  ASSERT_TRUE(signaller.Start(
      Isolated(services[0]->pid(), {"event", "Global\\KelvaneAllStop"})));
  ASSERT_TRUE(signaller.ReadLine(&line));
  ASSERT_EQ("ok", signaller.Ask("s"));
  for (auto& s : services) {
    ASSERT_TRUE(s->ReadLine(&line, 5000));
    EXPECT_EQ("ended", line);
    EXPECT_EQ(0, s->Finish());
  }
  EXPECT_EQ("1", signaller.Ask("?"));  // manual reset: still signalled
}

// Children run: restart timer of 200 ms ends the loop, then ShutDown with
// the given exit delay, graceful or not.
TEST(ShutDownEvent, RestartTimerAndForcedExit) {
  struct Row {
    int delay;
    bool graceful;
    const char* threads;  // after ShutDown
    int status;
    double minSeconds, maxSeconds;  // from ShutDown to the end
  } rows[] = {
      {0, false, "threads 0", 0, 0, 2},      // no exit thread, normal end
      {3, true, "threads 1", 0, 0, 2},       // graceful call: ends normally
      {3, false, "threads 1", 255, 3.4, 8},  // exit(-1) ~4 s later
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.delay) + (r.graceful ? " graceful" : ""));
    testsupport::ChildProcess child;
    ASSERT_TRUE(
        child.Start(Isolated(0, {"shutdown", "200", std::to_string(r.delay),
                                 r.graceful ? "1" : "0"})));
    std::string line;
    ASSERT_TRUE(child.ReadLine(&line, 5000));
    EXPECT_EQ("ended 1", line);  // by the timer: automated
    ASSERT_TRUE(child.ReadLine(&line, 5000));
    auto shutDown = Clock::now();
    EXPECT_EQ(r.threads, line);
    EXPECT_EQ(r.status, child.Finish());
    double seconds =
        std::chrono::duration<double>(Clock::now() - shutDown).count();
    EXPECT_GE(seconds, r.minSeconds);
    EXPECT_LE(seconds, r.maxSeconds);
  }
}

}  // namespace
