#include "common/os/crashreport.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/crashreportrules.h"

#include "support/tempfolder.h"

// External, never inlined: the report must name them.
volatile uintptr_t g_comCrashAddress = 0;

__attribute__((noinline)) void ComCrashNullWrite() {
  volatile int* target = reinterpret_cast<volatile int*>(g_comCrashAddress);
  *target = 42;
  asm volatile("");
}

__attribute__((noinline)) void ComCrashAbort() {
  std::abort();
  asm volatile("");
}

__attribute__((noinline)) void ComCrashThrow() {
  throw std::runtime_error("volume went away");
}

__attribute__((noinline)) int ComCrashDivide(int by) {
  volatile int divisor = by;
  const int result = 1000 / divisor;
  asm volatile("");
  return result;
}

volatile int g_comCrashDepthLimit = -1;  // never reached

__attribute__((noinline)) int ComCrashRecurse(int depth) {
  if (depth == g_comCrashDepthLimit) return 0;
  volatile char frame[256];
  frame[0] = static_cast<char>(depth);
  return ComCrashRecurse(depth + 1) + frame[0];
}

// No handler up this thread's stack: terminate runs with the thrower on it.
extern "C" void* ComCrashThreadMain(void*) {
  ComCrashThrow();
  return nullptr;
}

__attribute__((noinline)) void ComCrashUncaught() {
  pthread_t t;
  if (pthread_create(&t, nullptr, ComCrashThreadMain, nullptr) == 0)
    pthread_join(t, nullptr);
}

namespace {

using CrashReportRules::Writer;

// The sanitizers keep the fatal signals for themselves.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_UNDER_SANITIZERS() \
  GTEST_SKIP() << "the sanitizer owns the fatal signals"
#else
#define SKIP_UNDER_SANITIZERS() \
  do {                          \
  } while (0)
#endif

TEST(CrashReportRules, WriterFormatsWithoutAllocating) {
  char buf[64];
  Writer w(buf, sizeof buf);
  w.Dec(18446744073709551615ull).Text(" ").Hex(0).Text(" ").Pad(7, 3);
  w.Text(" ").Pad(12345, 2);
  EXPECT_STREQ("18446744073709551615 0x0 007 12345", w.data());

  char small[8];
  Writer cut(small, sizeof small);
  cut.Text("abcdefghij").Dec(99);
  EXPECT_STREQ("abcdefg", cut.data());  // cut off, still terminated
}

TEST(CrashReportRules, UtcTimeAgreesWithGmtime) {
  std::vector<int64_t> times = {-1, 951868799, 4107542400, 253402300799};
  for (int64_t t = -4000000000LL; t < 8000000000LL; t += 86399 * 37 + 11)
    times.push_back(t);
  for (int64_t t : times) {
    const time_t tt = static_cast<time_t>(t);
    struct tm g;
    char want[40], got[40];
    ASSERT_NE(nullptr, gmtime_r(&tt, &g));
    std::strftime(want, sizeof want, "%Y-%m-%d %H:%M:%S", &g);
    const CrashReportRules::UtcTime u = CrashReportRules::ToUtc(t);
    std::snprintf(got, sizeof got, "%lld-%02u-%02u %02u:%02u:%02u",
                  static_cast<long long>(u.year), u.month, u.day, u.hour,
                  u.minute, u.second);
    EXPECT_STREQ(want, got) << t;
  }
}

// The report files of `folder`.
std::vector<std::string> Reports(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& e : std::filesystem::directory_iterator(folder)) {
    const std::string name = e.path().filename().string();
    if (name.find("_crash_") != std::string::npos) found.push_back(e.path());
  }
  return found;
}

// Wait status of a child that installs the filter twice (the second folder
// is ignored) and runs `crash`; -1 if it hung.
int CrashChild(void (*crash)(), const std::string& folder,
               const std::string& otherFolder, const std::string& logPath) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    struct rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    const int err = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (err >= 0) ::dup2(err, STDERR_FILENO);
    if (!CUnhandleExceptionFilter::Install(folder.c_str())) ::_exit(3);
    if (!CUnhandleExceptionFilter::Install(otherFolder.c_str())) ::_exit(4);
    if (CUnhandleExceptionFilter::ReportFolder() != folder.c_str()) ::_exit(5);
    crash();
    ::_exit(6);
  }
  if (pid < 0) return -1;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(60);
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return status;
}

void Divide() { ComCrashDivide(0); }
void Overflow() { ComCrashRecurse(0); }

TEST(CUnhandleExceptionFilter, ReportsRealCrashesAndDiesOfTheSignal) {
  SKIP_UNDER_SANITIZERS();
  const struct {
    const char* name;  // nullptr: the folder is missing
    void (*crash)();
    int signal;
    const char* function;
    const char* extra;  // another line the report must hold
  } rows[] = {
      {"null write", ComCrashNullWrite, SIGSEGV, "ComCrashNullWrite",
       "(SIGSEGV), code 1, fault address 0x0\n"},
      {"abort", ComCrashAbort, SIGABRT, "ComCrashAbort",
       "(SIGABRT), code -6\n"},
      {"uncaught exception", ComCrashUncaught, SIGABRT, "ComCrashThrow",
       "reason: uncaught exception of type std::runtime_error: volume went "
       "away\n"},
      {"division by zero", Divide, SIGFPE, "ComCrashDivide",
       "(SIGFPE), code 1, fault address 0x"},
      {"stack overflow", Overflow, SIGSEGV, "ComCrashRecurse(int)",
       "(SIGSEGV), code "},
      // No folder: the report goes to the log only.
      {nullptr, ComCrashNullWrite, SIGSEGV, "ComCrashNullWrite",
       "signal: 11 (SIGSEGV)"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name ? r.name : "no folder");
    testsupport::TempFolder folder, other;
    ASSERT_TRUE(folder.ok() && other.ok());
    const std::string where =
        r.name ? folder.path() : folder.File("no-such-folder");
    const int status = CrashChild(r.crash, where, r.name ? other.path() : where,
                                  folder.File("stderr.log"));
    ASSERT_NE(-1, status) << "the child hung";
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(r.signal, WTERMSIG(status));
    const std::string log =
        testsupport::TempFolder::Read(folder.File("stderr.log"));
    EXPECT_NE(std::string::npos, log.find(r.function)) << log;
    if (!r.name) {
      EXPECT_NE(std::string::npos, log.find(r.extra)) << log;
      EXPECT_NE(std::string::npos, log.find("crash report not written")) << log;
      continue;
    }
    EXPECT_TRUE(Reports(other.path()).empty());
    const std::vector<std::string> reports = Reports(folder.path());
    ASSERT_EQ(1u, reports.size());
    const std::string report = testsupport::TempFolder::Read(reports[0]);
    const std::string file = std::filesystem::path(reports[0]).filename();
    const size_t at = file.find("_crash_") + 7;
    const std::string pid = file.substr(at, file.find('_', at) - at);
    for (const std::string& part :
         {std::string(r.extra), std::string(r.function),
          std::string("library version: 1."),
          std::string("stack (raw):\n  #0 0x"), "process: " + pid + " ("})
      EXPECT_NE(std::string::npos, report.find(part)) << part << report;
    EXPECT_EQ(std::string::npos, report.find("not symbolised")) << report;
    EXPECT_NE(std::string::npos, log.find(reports[0])) << log;  // the same
  }
}

}  // namespace
