#include "common/os/crashreport.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elfutils/libdwfl.h>
#include <exception>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <typeinfo>
#include <ucontext.h>
#include <unistd.h>

#include "common/base/comlog.h"
#include "common/os/internal/crashreportrules.h"
#include "common/os/osfile.h"
#include "common/os/systeminfo.h"

namespace CrashReportRules {

Writer::Writer(char* buffer, size_t capacity)
    : buffer_(buffer), capacity_(capacity), size_(0) {
  if (capacity_ > 0) buffer_[0] = '\0';
}

void Writer::Clear() {
  size_ = 0;
  if (capacity_ > 0) buffer_[0] = '\0';
}

Writer& Writer::Text(const char* s) {
  if (s == nullptr || capacity_ == 0) return *this;
  while (*s != '\0' && size_ + 1 < capacity_) buffer_[size_++] = *s++;
  buffer_[size_] = '\0';
  return *this;
}

Writer& Writer::Pad(uint64_t v, unsigned width) {
  char digits[24];
  unsigned n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0 && n < sizeof digits);
  while (n < width && n < sizeof digits) digits[n++] = '0';
  char text[25];
  for (unsigned i = 0; i < n; ++i) text[i] = digits[n - 1 - i];
  text[n] = '\0';
  return Text(text);
}

Writer& Writer::Dec(uint64_t v) { return Pad(v, 1); }

Writer& Writer::Hex(uint64_t v) {
  static const char kDigits[] = "0123456789abcdef";
  char text[19] = {'0', 'x'};
  char rev[16];
  unsigned n = 0;
  do {
    rev[n++] = kDigits[v & 0xF];
    v >>= 4;
  } while (v != 0);
  for (unsigned i = 0; i < n; ++i) text[2 + i] = rev[n - 1 - i];
  text[2 + n] = '\0';
  return Text(text);
}

const char* SignalName(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    case SIGABRT:
      return "SIGABRT";
    default:
      return "signal";
  }
}

UtcTime ToUtc(int64_t t) {
  int64_t days = t / 86400;
  int64_t rem = t % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  // Days to civil date, eras of 400 years starting on 0000-03-01.
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  UtcTime u;
  u.day = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
  u.month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
  u.year = yoe + era * 400 + (u.month <= 2 ? 1 : 0);
  u.hour = static_cast<unsigned>(rem / 3600);
  u.minute = static_cast<unsigned>(rem % 3600 / 60);
  u.second = static_cast<unsigned>(rem % 60);
  return u;
}

}  // namespace CrashReportRules

namespace {

using CrashReportRules::Writer;

const int kSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
constexpr int kMaxFrames = 64;
constexpr int kChildSeconds = 15;

// Everything the handler reads is prepared by Install and never freed.
std::atomic<bool> g_installed{false};
std::atomic<int> g_crashing{0};
std::terminate_handler g_previousTerminate = nullptr;
char g_folder[PATH_MAX];
char g_program[256];
char g_programPath[PATH_MAX];
char g_version[64];
char g_reason[1024];
alignas(16) char g_altStack[64 * 1024];
// The report under way, shared with the symbolising child.
char g_reportPath[PATH_MAX + 64];
void* g_frames[kMaxFrames];
int g_frameCount = 0;
int g_firstFrame = 0;

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

void Flush(int fd, Writer& w) {
  if (fd >= 0) WriteAll(fd, w.data(), w.size());
  w.Clear();
}

uintptr_t ContextPc(void* context) {
#if defined(__x86_64__)
  return static_cast<uintptr_t>(
      static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return static_cast<uintptr_t>(
      static_cast<ucontext_t*>(context)->uc_mcontext.pc);
#else
  (void)context;
  return 0;
#endif
}

// ---------------------------------------------------------------- child

// In the forked copy: resolve g_frames, append them, then log the report.
void Symbolise(int fd) {
  for (int sig : kSignals) {
    struct sigaction dfl;
    std::memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    ::sigaction(sig, &dfl, nullptr);
  }
  sigset_t fatal;
  sigemptyset(&fatal);
  for (int sig : kSignals) sigaddset(&fatal, sig);
  ::sigprocmask(SIG_UNBLOCK, &fatal, nullptr);
  struct rlimit none = {0, 0};
  ::setrlimit(RLIMIT_CORE, &none);

  static char* debuginfoPath = nullptr;
  static const Dwfl_Callbacks callbacks = {dwfl_linux_proc_find_elf,
                                           dwfl_standard_find_debuginfo,
                                           nullptr, &debuginfoPath};
  Dwfl* dwfl = dwfl_begin(&callbacks);
  if (dwfl != nullptr) {
    if (dwfl_linux_proc_report(dwfl, ::getpid()) != 0 ||
        dwfl_report_end(dwfl, nullptr, nullptr) != 0) {
      dwfl_end(dwfl);
      dwfl = nullptr;
    }
  }
  std::string text = "stack:\n";
  for (int i = g_firstFrame; i < g_frameCount; ++i) {
    const uintptr_t addr = reinterpret_cast<uintptr_t>(g_frames[i]);
    // Return addresses point after the call; look up the call itself. The
    // first frame is the faulting instruction.
    const uintptr_t pc = i == g_firstFrame ? addr : addr - 1;
    char line[64];
    std::snprintf(line, sizeof line, "  #%-2d 0x%016llx ", i - g_firstFrame,
                  static_cast<unsigned long long>(addr));
    text += line;
    Dwfl_Module* mod = dwfl ? dwfl_addrmodule(dwfl, pc) : nullptr;
    const char* symbol = nullptr;
    GElf_Off offset = 0;
    GElf_Sym sym;
    const char* module = nullptr;
    if (mod != nullptr) {
      symbol = dwfl_module_addrinfo(mod, pc, &offset, &sym, nullptr, nullptr,
                                    nullptr);
      module = dwfl_module_info(mod, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr);
    }
    if (symbol != nullptr) {
      int status = -1;
      char* plain = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
      text += status == 0 && plain ? plain : symbol;
      std::free(plain);
      std::snprintf(line, sizeof line, "+0x%llx",
                    static_cast<unsigned long long>(offset));
      text += line;
    } else {
      text += "??";
    }
    if (module != nullptr) {
      const char* slash = std::strrchr(module, '/');
      text += " (";
      text += slash ? slash + 1 : module;
      text += ")";
    }
    if (mod != nullptr) {
      if (Dwfl_Line* src = dwfl_module_getsrc(mod, pc)) {
        int lineNo = 0;
        const char* file =
            dwfl_lineinfo(src, nullptr, &lineNo, nullptr, nullptr, nullptr);
        if (file != nullptr) {
          text += " ";
          text += file;
          text += ":" + std::to_string(lineNo);
        }
      }
    }
    text += "\n";
  }
  if (dwfl != nullptr) dwfl_end(dwfl);
  WriteAll(fd, text.data(), text.size());

  // The whole report to the log, read back from the file (without a file
  // the report went to stderr, and the log gets the symbolised stack).
  std::string report = fd == STDERR_FILENO ? text : std::string();
  const int in =
      fd == STDERR_FILENO ? -1 : ::open(g_reportPath, O_RDONLY | O_CLOEXEC);
  if (in >= 0) {
    char buf[4096];
    ssize_t n;
    while ((n = ::read(in, buf, sizeof buf)) > 0)
      report.append(buf, static_cast<size_t>(n));
    ::close(in);
  }
  COM_LOG((LM_EMERGENCY, "CUnhandleExceptionFilter: crash report %C\n%C",
           g_reportPath, report.c_str()));
}

int g_reportFd = -1;
ucontext_t g_childMain, g_childWork;

void SymboliseEntry() { Symbolise(g_reportFd); }

// libdw needs far more stack than the alternate signal stack has: the
// child gives it a fresh 8 MiB stack of its own.
void RunSymbolise() {
  const size_t size = size_t{8} << 20;
  void* stack = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED || ::getcontext(&g_childWork) != 0) {
    SymboliseEntry();
    return;
  }
  g_childWork.uc_stack.ss_sp = stack;
  g_childWork.uc_stack.ss_size = size;
  g_childWork.uc_link = &g_childMain;
  ::makecontext(&g_childWork, SymboliseEntry, 0);
  if (::swapcontext(&g_childMain, &g_childWork) != 0) SymboliseEntry();
}

// ---------------------------------------------------------------- handler

void OnFatalSignal(int sig, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (g_crashing.exchange(1) != 0) {
    // Another thread is reporting; the process ends when it is done.
    for (;;) ::pause();
  }
  char buffer[2048];
  Writer w(buffer, sizeof buffer);

  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  const CrashReportRules::UtcTime t = CrashReportRules::ToUtc(now.tv_sec);
  const pid_t pid = ::getpid();
  const long tid = ::syscall(SYS_gettid);

  Writer name(g_reportPath, sizeof g_reportPath);
  name.Text(g_folder).Text("/").Text(g_program).Text("_crash_").Dec(
      static_cast<uint64_t>(pid));
  name.Text("_").Pad(static_cast<uint64_t>(t.year), 4).Pad(t.month, 2);
  name.Pad(t.day, 2).Text("-").Pad(t.hour, 2).Pad(t.minute, 2);
  name.Pad(t.second, 2).Text(".txt");
  const int file =
      ::open(g_reportPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  // Without a file the report goes to stderr.
  const int fd = file >= 0 ? file : STDERR_FILENO;

  w.Text("Crash report\n");
  w.Text("time: ").Pad(static_cast<uint64_t>(t.year), 4).Text("-");
  w.Pad(t.month, 2).Text("-").Pad(t.day, 2).Text(" ").Pad(t.hour, 2);
  w.Text(":").Pad(t.minute, 2).Text(":").Pad(t.second, 2).Text(" UTC\n");
  w.Text("process: ").Dec(static_cast<uint64_t>(pid)).Text(" (");
  w.Text(g_programPath).Text(")\n");
  char threadName[17] = {0};
  ::prctl(PR_GET_NAME, threadName, 0, 0, 0);
  w.Text("thread: ").Dec(static_cast<uint64_t>(tid)).Text(" (");
  w.Text(threadName).Text(")\n");
  w.Text("signal: ").Dec(static_cast<uint64_t>(sig)).Text(" (");
  w.Text(CrashReportRules::SignalName(sig)).Text("), code ");
  if (info != nullptr && info->si_code < 0) {
    w.Text("-").Dec(
        static_cast<uint64_t>(-static_cast<int64_t>(info->si_code)));
  } else {
    w.Dec(info ? static_cast<uint64_t>(info->si_code) : 0);
  }
  if (info != nullptr && sig != SIGABRT) {
    w.Text(", fault address ").Hex(reinterpret_cast<uintptr_t>(info->si_addr));
  }
  w.Text("\n");
  if (g_reason[0] != '\0') w.Text("reason: ").Text(g_reason).Text("\n");
  w.Text("library version: ").Text(g_version).Text("\n");
  Flush(fd, w);

  g_frameCount = ::backtrace(g_frames, kMaxFrames);
  // Start at the interrupted instruction; the frames before it are this
  // handler's own.
  g_firstFrame = 0;
  const uintptr_t pc = ContextPc(context);
  for (int i = 0; i < g_frameCount; ++i) {
    if (reinterpret_cast<uintptr_t>(g_frames[i]) == pc) {
      g_firstFrame = i;
      break;
    }
  }
  w.Text("stack (raw):\n");
  for (int i = g_firstFrame; i < g_frameCount; ++i) {
    w.Text("  #").Dec(static_cast<uint64_t>(i - g_firstFrame)).Text(" ");
    w.Hex(reinterpret_cast<uintptr_t>(g_frames[i])).Text("\n");
    if (w.size() > sizeof buffer - 64) Flush(fd, w);
  }
  Flush(fd, w);

  const pid_t child = ::_Fork();
  if (child == 0) {
    g_reportFd = fd;
    RunSymbolise();
    ::_exit(0);
  }
  bool finished = false;
  if (child > 0) {
    struct timespec step = {0, 10 * 1000 * 1000};
    for (int waited = 0; waited < kChildSeconds * 100; ++waited) {
      int status = 0;
      const pid_t r = ::waitpid(child, &status, WNOHANG);
      if (r == child || (r < 0 && errno != EINTR)) {
        finished = r == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        break;
      }
      ::nanosleep(&step, nullptr);
    }
    if (!finished) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
  }
  if (!finished) {
    w.Text("stack: not symbolised; resolve the raw addresses against ");
    w.Text(g_programPath).Text(" and its libraries\n");
    Flush(fd, w);
  }
  if (file >= 0) ::close(file);
  w.Text("Fatal ").Text(CrashReportRules::SignalName(sig));
  w.Text(": crash report ").Text(file >= 0 ? g_reportPath : "not written");
  w.Text("\n");
  Flush(STDERR_FILENO, w);

  // Die of the same signal with its default action: it is pending until
  // this handler returns (the signal is blocked while the handler runs);
  // a fault then kills at once, the faulting instruction is not re-run.
  struct sigaction dfl;
  std::memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  ::sigaction(sig, &dfl, nullptr);
  ::syscall(SYS_tgkill, pid, tid, sig);
  errno = savedErrno;
}

void OnTerminate() {
  std::string reason = "std::terminate called without an active exception";
  if (std::type_info* type = abi::__cxa_current_exception_type()) {
    int status = -1;
    char* plain = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
    reason = std::string("uncaught exception of type ") +
             (status == 0 && plain ? plain : type->name());
    std::free(plain);
    try {
      throw;
    } catch (const std::exception& e) {
      reason += std::string(": ") + e.what();
    } catch (...) {
    }
  }
  std::snprintf(g_reason, sizeof g_reason, "%s", reason.c_str());
  if (g_previousTerminate != nullptr && g_previousTerminate != OnTerminate)
    g_previousTerminate();
  std::abort();
}

ACE_CString OwnLibraryPath() {
  Dl_info info;
  if (::dladdr(reinterpret_cast<void*>(&OnTerminate), &info) != 0 &&
      info.dli_fname != nullptr)
    return info.dli_fname;
  return ACE_CString();
}

std::mutex g_installLock;

}  // namespace

CUnhandleExceptionFilter::CUnhandleExceptionFilter(const char* reportFolder) {
  Install(reportFolder);
}

bool CUnhandleExceptionFilter::Install(const char* reportFolder) {
  std::lock_guard<std::mutex> guard(g_installLock);
  if (g_installed.load()) return true;

  ACE_CString folder = reportFolder ? reportFolder : "";
  if (folder.length() == 0) folder = Kelvane::GetLogRoot();
  if (folder.length() == 0) folder = "/tmp";
  while (folder.length() > 1 && folder[folder.length() - 1] == '/')
    folder = folder.substr(0, folder.length() - 1);
  std::snprintf(g_folder, sizeof g_folder, "%s", folder.c_str());
  if (::access(g_folder, W_OK) != 0)
    COM_LOG((LM_ERROR,
             "CUnhandleExceptionFilter::Install: cannot write to %C. OS "
             "Error: %m\n",
             g_folder));

  const ssize_t n =
      ::readlink("/proc/self/exe", g_programPath, sizeof g_programPath - 1);
  g_programPath[n > 0 ? n : 0] = '\0';
  const char* slash = std::strrchr(g_programPath, '/');
  Writer(g_program, sizeof g_program)
      .Text(n > 0 ? (slash ? slash + 1 : g_programPath) : "process");
  const ACE_CString library = OwnLibraryPath();
  ACE_CString version;
  if (library.length() != 0) version = SystemInfo::ApplicationVersion(library);
  std::snprintf(g_version, sizeof g_version, "%s",
                version.length() ? version.c_str() : "unknown");

  // Load the unwinder now, so that backtrace() in the handler does not.
  void* warm[2];
  ::backtrace(warm, 2);

  stack_t stack;
  std::memset(&stack, 0, sizeof stack);
  stack.ss_sp = g_altStack;
  stack.ss_size = sizeof g_altStack;
  if (::sigaltstack(&stack, nullptr) != 0) {
    COM_LOG((LM_ERROR,
             "CUnhandleExceptionFilter::Install: sigaltstack() failed. OS "
             "Error: %m\n"));
    return false;
  }
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_sigaction = OnFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int sig : kSignals) sigaddset(&action.sa_mask, sig);
  for (int sig : kSignals) {
    if (::sigaction(sig, &action, nullptr) != 0) {
      COM_LOG((LM_ERROR,
               "CUnhandleExceptionFilter::Install: sigaction() failed. OS "
               "Error: %m\n"));
      return false;
    }
  }
  g_previousTerminate = std::set_terminate(OnTerminate);
  g_installed.store(true);
  return true;
}

bool CUnhandleExceptionFilter::IsInstalled() { return g_installed.load(); }

ACE_CString CUnhandleExceptionFilter::ReportFolder() {
  std::lock_guard<std::mutex> guard(g_installLock);
  return g_installed.load() ? ACE_CString(g_folder) : ACE_CString();
}
