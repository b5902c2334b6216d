#include "common/base/debugtrigger.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/inotify.h>
#include <unistd.h>

#include <ace/Log_Msg.h>

#include "common/base/comlog.h"
#include "common/base/internal/reactorrelay.h"

const char DebugTrigger::kSection[] =
    "Software\\Kelvane\\QuillonServer\\System";
const char DebugTrigger::kValue[] = "Debug";

namespace {

// What an editor does to the file that matters: a write finished, a copy
// renamed onto it, the file removed or renamed away.
constexpr uint32_t kWatchMask =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

std::string FolderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Empties the inotify descriptor; true when an event concerns `base` (or
// events were lost).
bool DrainNotifications(int fd, const std::string& base) {
  alignas(struct inotify_event) char buf[8192];
  bool relevant = false;
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    for (char* p = buf; p < buf + n;) {
      auto* ev = reinterpret_cast<struct inotify_event*>(p);
      if ((ev->mask & IN_Q_OVERFLOW) || (ev->len > 0 && base == ev->name)) {
        relevant = true;
      }
      p += sizeof(struct inotify_event) + ev->len;
    }
  }
  return relevant;
}

}  // namespace

DebugTrigger::DebugTrigger(bool forceDebug)
    : file_(Kelvane::ConfigStore::FilePath()),
      notify_(-1),
      closing_(false),
      relay_(new Kelvane::internal::ReactorRelay) {
  if (Kelvane::ConfigStore::WriteString(file_.c_str(), kSection, nullptr,
                                        nullptr) != 0) {
    COM_LOG((LM_ERROR,
             "DebugTrigger::DebugTrigger: Could not start DebugTrigger: OS "
             "Error: %m.\n"));
    return;
  }
  config_.reset(new Kelvane::ConfigStore);
  SetDebugging(forceDebug);
  if (!Watch()) {
    COM_LOG((LM_ERROR, "RegNotifyChangeKeyValue could not be setup\n"));
    return;
  }
  const std::string base = BaseOf(file_.c_str());
  if (relay_->WatchDescriptor(this, notify_, [base](ACE_HANDLE fd) {
        return DrainNotifications(fd, base);
      }) != 0) {
    COM_LOG((LM_ERROR,
             "DebugTrigger::DebugTrigger: Could not register DebugTrigger "
             "with reactor.\n"));
  }
}

DebugTrigger::~DebugTrigger() {
  closing_ = true;
  relay_->Stop();
  if (notify_ >= 0) ::close(notify_);
}

bool DebugTrigger::Watch() {
  notify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (notify_ < 0) return false;
  if (::inotify_add_watch(notify_, FolderOf(file_.c_str()).c_str(),
                          kWatchMask) < 0) {
    int saved = errno;
    ::close(notify_);
    notify_ = -1;
    errno = saved;
    return false;
  }
  return true;
}

bool DebugTrigger::Debugging() {
  ACE_CString value;
  ACE_Configuration_Section_Key key;
  if (config_.get() == nullptr || config_->Load(file_) != 0 ||
      config_->OpenKey(kSection, key) != 0 ||
      Kelvane::ConfigStore::GetString(config_->heap(), key, kValue, value) !=
          0) {
    Kelvane::ConfigStore::WriteString(file_.c_str(), kSection, kValue, "0");
    return false;
  }
  return std::atoi(value.c_str()) > 0;
}

void DebugTrigger::SetDebugging(bool force) {
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  u_long mask = log->priority_mask(ACE_Log_Msg::PROCESS);
  if (force || Debugging()) {
    mask |= LM_DEBUG;
    COM_LOG((LM_WARNING,
             "DebugTrigger::SetDebugging: Debugging mode activated.\n"));
  } else {
    mask &= ~static_cast<u_long>(LM_DEBUG);
    COM_LOG(
        (LM_WARNING, "DebugTrigger::SetDebugging: Debugging mode disabled.\n"));
  }
  log->priority_mask(mask, ACE_Log_Msg::PROCESS);
}

int DebugTrigger::handle_signal(int, siginfo_t*, ucontext_t*) {
  if (closing_) return 0;
  SetDebugging(false);
  // inotify watches stay armed; nothing to renew.
  return 0;
}
