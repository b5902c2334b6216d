#include "common/namedevent/internal/sharedevent.h"

#include <cstdio>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Common {
namespace internal {
namespace {

constexpr char kEventDir[] = "/dev/shm";
constexpr char kFilePrefix[] = "com-event.";
constexpr mode_t kOpenToAll = 0666;

int Flock(int fd, int op) {
  int r;
  do {
    r = ::flock(fd, op);
  } while (r != 0 && errno == EINTR);
  return r;
}

void CloseKeepingErrno(int fd) {
  int saved = errno;
  ::close(fd);
  errno = saved;
}

// Holds the machine-wide lock that serialises opening and closing of every
// shared event.
class DirLock {
 public:
  DirLock() : fd_(::open(kEventDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ >= 0 && Flock(fd_, LOCK_EX) != 0) {
      CloseKeepingErrno(fd_);
      fd_ = -1;
    }
  }
  ~DirLock() {
    if (fd_ >= 0) CloseKeepingErrno(fd_);  // drops the lock
  }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

// Sizes a freshly created file and sets up the event state in it the way
// ACE's own creator does, so that ACE_OS::event_init finds a ready event.
int InitialiseFile(int fd, const char* path, bool manualReset, bool signaled) {
  if (::fchmod(fd, kOpenToAll) != 0 ||
      ::ftruncate(fd, sizeof(ACE_eventdata_t)) != 0)
    return -1;
  void* p = ::mmap(nullptr, sizeof(ACE_eventdata_t), PROT_READ | PROT_WRITE,
                   MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) return -1;
  auto* data = static_cast<ACE_eventdata_t*>(p);
  data->type_ = USYNC_PROCESS;
  data->manual_reset_ = manualReset ? 1 : 0;
  data->is_signaled_ = signaled ? 1 : 0;
  data->auto_event_signaled_ = false;
  data->waiting_threads_ = 0;
  data->signal_count_ = 0;
  int result = ACE_OS::cond_init(&data->condition_,
                                 static_cast<short>(USYNC_PROCESS), path, 0);
  if (result == 0)
    result = ACE_OS::mutex_init(&data->lock_, USYNC_PROCESS, path, 0);
  int saved = errno;
  ::munmap(p, sizeof(ACE_eventdata_t));
  errno = saved;
  return result == 0 ? 0 : -1;
}

}  // namespace

SharedEvent::SharedEvent() : ref_(-1), open_(false) {}

SharedEvent::~SharedEvent() { Close(); }

ACE_CString SharedEvent::PathFor(const char* name) {
  ACE_CString path(kEventDir);
  path += "/";
  path += kFilePrefix;
  for (const char* p = name; p && *p; ++p) {
    if (*p == '/') {
      path += "%2F";
    } else if (*p == '%') {
      path += "%25";
    } else {
      path += *p;
    }
  }
  return path;
}

int SharedEvent::Open(const char* name, bool manualReset,
                      bool initiallySignaled) {
  if (open_) {
    errno = EBUSY;
    return -1;
  }
  if (name == nullptr || *name == '\0') {
    errno = EINVAL;
    return -1;
  }
  ACE_CString path = PathFor(name);
  DirLock lock;
  if (!lock.ok()) return -1;

  int fd =
      ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
             kOpenToAll);
  if (fd >= 0) {
    if (InitialiseFile(fd, path.c_str(), manualReset, initiallySignaled) != 0) {
      int saved = errno;
      ::unlink(path.c_str());
      ::close(fd);
      errno = saved;
      return -1;
    }
  } else {
    if (errno != EEXIST) return -1;
    // Not O_CREAT: a file of another user in the sticky folder may be
    // opened but not "created" under fs.protected_regular.
    fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (::fstat(fd, &st) != 0) {
      CloseKeepingErrno(fd);
      return -1;
    }
    if (!S_ISREG(st.st_mode) ||
        st.st_size != static_cast<off_t>(sizeof(ACE_eventdata_t))) {
      ::close(fd);
      errno = EINVAL;
      return -1;
    }
  }
  // ACE opens the file once more, with O_CREAT. Handing it our descriptor's
  // /proc link makes it map exactly the file locked here, and keeps that
  // open clear of fs.protected_regular, which refuses O_CREAT on another
  // user's file in a sticky folder such as /dev/shm.
  char self[64];
  std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
  if (Flock(fd, LOCK_SH) != 0 ||
      ACE_OS::event_init(&event_, manualReset ? 1 : 0,
                         initiallySignaled ? 1 : 0, USYNC_PROCESS, self) != 0) {
    CloseKeepingErrno(fd);
    return -1;
  }
  ref_ = fd;
  path_ = path;
  open_ = true;
  return 0;
}

void SharedEvent::Close() {
  if (!open_) return;
  int saved = errno;
  DirLock lock;
  // The file existed before event_init, so ACE sees itself as a mere user
  // and only unmaps; removing the file is left to the last closer.
  ACE_OS::event_destroy(&event_);
  if (lock.ok() && Flock(ref_, LOCK_EX | LOCK_NB) == 0) ::unlink(path_.c_str());
  ::close(ref_);
  ref_ = -1;
  open_ = false;
  errno = saved;
}

int SharedEvent::Signal() {
  if (!open_) {
    errno = EBADF;
    return -1;
  }
  return ACE_OS::event_signal(&event_);
}

int SharedEvent::Reset() {
  if (!open_) {
    errno = EBADF;
    return -1;
  }
  return ACE_OS::event_reset(&event_);
}

int SharedEvent::Pulse() {
  if (!open_) {
    errno = EBADF;
    return -1;
  }
  return ACE_OS::event_pulse(&event_);
}

int SharedEvent::Wait(const ACE_Time_Value* deadline) {
  if (!open_) {
    errno = EBADF;
    return -1;
  }
  if (deadline == nullptr) return ACE_OS::event_wait(&event_);
  ACE_Time_Value until(*deadline);
  int r = ACE_OS::event_timedwait(&event_, &until, 1);
  if (r != 0 && errno == ETIMEDOUT) errno = ETIME;
  return r;
}

}  // namespace internal
}  // namespace Common
