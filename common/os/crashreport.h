// CUnhandleExceptionFilter: a crash report for a process that dies of a
// fatal signal (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT) or of
// std::terminate (an uncaught exception among them).
//
// The report is a text file "<folder>/<program>_crash_<pid>_<YYYYMMDD-
// HHMMSS>.txt" (UTC) holding the time, the process id and program, the
// crashing thread's id and name, the signal with its code and fault
// address, the reason std::terminate was called (the exception's type and
// what()), the library's version, the raw return addresses and the
// symbolised stack ("function+offset (module) file:line"). The whole report
// is then logged at LM_EMERGENCY, and the process dies of the original
// signal with its default action, so a core dump is still written where
// the system writes one. The report folder is the one given to Install,
// else the configured LogRoot (Kelvane::GetLogRoot), else /tmp.
//
// How the handler stays safe. The signal handler runs on an alternate
// signal stack (so a stack overflow of the installing thread is reported
// too; other threads run it on their own stack) and uses only async-
// signal-safe calls: open/write, clock_gettime, hand-made number
// formatting, and backtrace(), which Install calls once beforehand so that
// its unwinder is loaded and later calls neither load nor allocate. The raw
// addresses are in the file before anything else is tried. Symbolising
// needs libdw, which allocates: instead of doing that in a process whose
// heap may be what broke, the handler forks a child with _Fork (no atfork
// handlers run). The child is a copy of the crashed process; it restores
// the default signal actions, looks the addresses up with libdw in its own
// copy of the mappings, appends the symbolised stack to the report and
// logs the report. If the child crashes too, or hangs on a lock some other
// thread held at the fork, the parent kills it after 15 seconds and notes
// that in the report: the raw addresses are still there, to be resolved
// off-line with the same binaries. The parent only waits (waitpid with
// WNOHANG and nanosleep), then re-raises.
//
// Thread safety: Install may be called from any thread, any number of
// times; the first call installs, later calls change nothing. When several
// threads crash at once the first reports and the others wait for the
// process to end.
//
// Example:
//   int main() {
//     CUnhandleExceptionFilter::Install();  // reports under LogRoot
//     ...
//   }
#ifndef COM_COMMON_OS_CRASHREPORT_H_
#define COM_COMMON_OS_CRASHREPORT_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT CUnhandleExceptionFilter {
 public:
  // Installs the handlers (see Install).
  explicit CUnhandleExceptionFilter(const char* reportFolder = nullptr);

  // Installs the signal handlers and the terminate handler, once per
  // process. `reportFolder` null or "" picks the folder as above. True when
  // the handlers are in place (also on later calls); false, with a record
  // at LM_ERROR, when sigaction or sigaltstack failed.
  static bool Install(const char* reportFolder = nullptr);

  static bool IsInstalled();

  // The folder reports go to; "" before Install.
  static ACE_CString ReportFolder();
};

#endif  // COM_COMMON_OS_CRASHREPORT_H_
