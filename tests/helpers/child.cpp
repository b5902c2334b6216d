// A second process for the cross-process tests, driven by lines on stdin:
//   com_test_child failures      "f": raise one allocation failure, answer
//                                the failure count
//   com_test_child event <name>  open the shared event, answer "ready"; then
//                                "?": poll it, "w <ms>": wait for it (answer
//                                1 or 0), "s": signal, "r": reset ("ok"),
//                                "p": pulse ("ok")
//   com_test_child churn <name>  opens, signals, pulses, resets, waits on
//                                and closes the shared event at random, for
//                                ever (the test kills it)
//   com_test_child stopwatch     builds a ShutDownEvent, answers "ready",
//                                runs the reactor loop, answers "ended"
//   com_test_child shutdown <restart ms> <exit delay s> <graceful 0|1>
//                                builds ShutDownEvent, runs the loop (ended
//                                by the restart timer), answers "ended <0|1>"
//                                (isAutomatedShutdown), calls ShutDown and
//                                answers "threads <n>"; then calls
//                                ShutdownGracefully when asked to and returns,
//                                else with a delay waits to be ended
//   com_test_child debug <force 0|1>  builds DebugTrigger on $KELVANE_CONFIG
//                                with the reactor loop on a second thread;
//                                "?": LM_DEBUG in the process mask (1 or 0)
// Before the command, "--private-shm" gives the child a /dev/shm of its own
// (a new mount namespace with a fresh tmpfs there, root only) and
// "--shm-of <pid>" joins that of another such child, so that tests of the
// machine-wide stop event do not meet other tests' processes.
//   com_test_child cfgwrite <file> <prefix> <n>  writes the values
//                                <prefix>0..<prefix>n-1 = their index into
//                                [Software\Kelvane\Test], one write each
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>

#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reactor.h>
#include <ace/Thread_Manager.h>

#include "common/base/debugtrigger.h"
#include "common/base/memoryallocationexception.h"
#include "common/base/shutdownevent.h"
#include "common/namedevent/internal/sharedevent.h"
#include "common/os/configstore.h"

namespace {

bool ReadLine(std::string* line) {
  char buf[256];
  if (!std::fgets(buf, sizeof buf, stdin)) return false;
  *line = buf;
  while (!line->empty() && line->back() == '\n') line->pop_back();
  return true;
}

void Answer(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

int Failures() {
  std::string line;
  while (ReadLine(&line)) {
    if (line != "f") return 2;
    Kelvane::MemoryAllocationException e("test failure", __FILE__, __LINE__);
    Answer(std::to_string(
        Kelvane::MemoryAllocationException::GetGlobalAllocationFailures()));
  }
  return 0;
}

int Event(const char* name) {
  Common::internal::SharedEvent ev;
  if (ev.Open(name, true, false) != 0) {
    Answer(std::string("error ") + std::strerror(errno));
    return 1;
  }
  Answer("ready");
  std::string line;
  while (ReadLine(&line)) {
    if (line == "?" || line.compare(0, 2, "w ") == 0) {
      long ms = line == "?" ? 0 : std::atol(line.c_str() + 2);
      ACE_Time_Value deadline =
          ACE_OS::gettimeofday() + ACE_Time_Value(0, ms * 1000);
      Answer(ev.Wait(&deadline) == 0 ? "1" : "0");
    } else if (line == "s") {
      Answer(ev.Signal() == 0 ? "ok" : "error");
    } else if (line == "r") {
      Answer(ev.Reset() == 0 ? "ok" : "error");
    } else if (line == "p") {
      Answer(ev.Pulse() == 0 ? "ok" : "error");
    } else {
      return 2;
    }
  }
  return 0;
}

[[noreturn]] void Churn(const char* name) {
  std::mt19937 rng(static_cast<unsigned>(::getpid()));
  Common::internal::SharedEvent ev;
  for (;;) {
    if (!ev.IsOpen()) ev.Open(name, true, false);
    switch (rng() % 6) {
      case 0:
        ev.Signal();
        break;
      case 1:
        ev.Pulse();
        break;
      case 2:
        ev.Reset();
        break;
      case 3: {
        ACE_Time_Value soon =
            ACE_OS::gettimeofday() + ACE_Time_Value(0, rng() % 500);
        ev.Wait(&soon);
        break;
      }
      case 4:
        ev.Close();
        break;
      default:
        ev.Signal();
        ev.Reset();
        break;
    }
  }
}

int Stopwatch() {
  ShutDownEvent stop(ACE_Time_Value::zero, 0);
  Answer("ready");
  ACE_Reactor::instance()->run_reactor_event_loop();
  Answer("ended");
  return 0;
}

int Shutdown(long restartMs, int delay, bool graceful) {
  ShutDownEvent stop(ACE_Time_Value(0, restartMs * 1000), delay);
  ACE_Reactor::instance()->run_reactor_event_loop();
  Answer(std::string("ended ") + (stop.isAutomatedShutdown() ? "1" : "0"));
  stop.ShutDown();
  Answer("threads " +
         std::to_string(ACE_Thread_Manager::instance()->count_threads()));
  if (graceful) {
    stop.ShutdownGracefully();
    return 0;
  }
  if (delay != 0) {
    for (;;) ::pause();  // the exit thread ends the process
  }
  return 0;
}

int Debug(bool force) {
  DebugTrigger trigger(force);
  std::thread loop([] {
    ACE_Reactor::instance()->owner(ACE_Thread::self());
    ACE_Reactor::instance()->run_reactor_event_loop();
  });
  Answer("ready");
  std::string line;
  int rc = 0;
  while (ReadLine(&line)) {
    if (line != "?") {
      rc = 2;
      break;
    }
    u_long mask = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
    Answer((mask & LM_DEBUG) ? "1" : "0");
  }
  ACE_Reactor::instance()->end_event_loop();
  loop.join();
  return rc;
}

int ConfigWrite(const char* file, const char* prefix, int n) {
  for (int i = 0; i < n; ++i) {
    std::string name = prefix + std::to_string(i);
    if (Kelvane::ConfigStore::WriteString(file, "Software\\Kelvane\\Test",
                                          name.c_str(),
                                          std::to_string(i).c_str()) != 0)
      return 1;
  }
  return 0;
}

// Called while the process is still single-threaded.
bool IsolateShm(int* argc, char*** argv) {
  char* program = (*argv)[0];
  if (*argc >= 2 && std::strcmp((*argv)[1], "--private-shm") == 0) {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") != 0)
      return false;
    --*argc;
    ++*argv;
  } else if (*argc >= 3 && std::strcmp((*argv)[1], "--shm-of") == 0) {
    std::string ns = std::string("/proc/") + (*argv)[2] + "/ns/mnt";
    int fd = ::open(ns.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::setns(fd, CLONE_NEWNS) != 0) return false;
    ::close(fd);
    *argc -= 2;
    *argv += 2;
  } else {
    return true;
  }
  (*argv)[0] = program;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!IsolateShm(&argc, &argv)) {
    std::fprintf(stderr, "cannot isolate /dev/shm: %s\n", std::strerror(errno));
    return 3;
  }
  ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);  // keep stdout clean
  if (argc == 2 && std::strcmp(argv[1], "failures") == 0) return Failures();
  if (argc == 3 && std::strcmp(argv[1], "event") == 0) return Event(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "churn") == 0) Churn(argv[2]);
  if (argc == 2 && std::strcmp(argv[1], "stopwatch") == 0) return Stopwatch();
  if (argc == 5 && std::strcmp(argv[1], "shutdown") == 0)
    return Shutdown(std::atol(argv[2]), std::atoi(argv[3]),
                    std::atoi(argv[4]) != 0);
  if (argc == 3 && std::strcmp(argv[1], "debug") == 0)
    return Debug(std::atoi(argv[2]) != 0);
  if (argc == 5 && std::strcmp(argv[1], "cfgwrite") == 0)
    return ConfigWrite(argv[2], argv[3], std::atoi(argv[4]));
  std::fprintf(stderr,
               "usage: %s failures | event <name> | churn <name> | stopwatch |"
               " shutdown <ms> <s> <0|1> | debug <0|1> |"
               " cfgwrite <file> <prefix> <n>\n",
               argv[0]);
  return 2;
}
