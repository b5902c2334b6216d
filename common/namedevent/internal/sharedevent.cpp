#include "common/namedevent/internal/sharedevent.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace Common {
namespace internal {
namespace {

constexpr char kEventDir[] = "/dev/shm";
constexpr char kFilePrefix[] = "com-event.";
constexpr mode_t kOpenToAll = 0666;
constexpr uint32_t kMagic = 0x4b455631;  // "KEV1"
constexpr uint32_t kSignaled = 1;
// Set by a process before it sleeps on the word; the next signal or pulse
// clears it and makes the wake call, so that signalling with nobody asleep
// stays a single atomic update. A sleeper that dies leaves it set, which
// costs one needless wake.
constexpr uint32_t kSleepers = 2;
constexpr uint32_t kGeneration = 4;  // one step of the generation counter

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t),
              "the futex word must be a plain 32-bit word");

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

uint32_t* Raw(std::atomic<uint32_t>* word) {
  return reinterpret_cast<uint32_t*>(word);
}

// Shared (not private) futex calls: the word is in a file mapping that
// several processes see.
long FutexWaitUntil(std::atomic<uint32_t>* word, uint32_t seen,
                    const struct timespec* wallDeadline) {
  return ::syscall(SYS_futex, Raw(word),
                   FUTEX_WAIT_BITSET | FUTEX_CLOCK_REALTIME, seen, wallDeadline,
                   nullptr, FUTEX_BITSET_MATCH_ANY);
}

long FutexWaitFor(std::atomic<uint32_t>* word, uint32_t seen,
                  const struct timespec* relative) {
  return ::syscall(SYS_futex, Raw(word), FUTEX_WAIT, seen, relative, nullptr,
                   0);
}

void FutexWakeAll(std::atomic<uint32_t>* word) {
  ::syscall(SYS_futex, Raw(word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

// Holds the machine-wide lock that serialises opening and closing of every
// shared event. The kernel drops it with a holder that dies.
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

SharedEventData* Map(int fd) {
  void* p = ::mmap(nullptr, sizeof(SharedEventData), PROT_READ | PROT_WRITE,
                   MAP_SHARED, fd, 0);
  return p == MAP_FAILED ? nullptr : static_cast<SharedEventData*>(p);
}

// Sets up a file that nobody holds, whatever state a dead process left it
// in. The magic goes in last, so a half-made file never passes for a ready
// one.
SharedEventData* Initialise(int fd, bool manualReset, bool signaled) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return nullptr;
  // Another user's leftover file cannot be chmod-ed; it is 0666 already.
  if ((st.st_mode & 07777) != kOpenToAll && ::fchmod(fd, kOpenToAll) != 0)
    return nullptr;
  if (::ftruncate(fd, sizeof(SharedEventData)) != 0) return nullptr;
  SharedEventData* data = Map(fd);
  if (data == nullptr) return nullptr;
  __atomic_store_n(&data->magic, 0u, __ATOMIC_RELEASE);
  data->manualReset = manualReset ? 1 : 0;
  data->word.store(signaled ? kSignaled : 0, std::memory_order_relaxed);
  __atomic_store_n(&data->magic, kMagic, __ATOMIC_RELEASE);
  return data;
}

bool SizeFitsEvent(const struct stat& st) {
  return S_ISREG(st.st_mode) &&
         (st.st_size == 0 ||
          st.st_size == static_cast<off_t>(sizeof(SharedEventData)));
}

}  // namespace

SharedEvent::SharedEvent() : data_(nullptr), ref_(-1) {}

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
  if (data_ != nullptr) {
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
  if (fd < 0) {
    if (errno != EEXIST) return -1;
    // Not O_CREAT: a file of another user in the sticky folder may be
    // opened but not "created" under fs.protected_regular.
    fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    CloseKeepingErrno(fd);
    return -1;
  }
  if (!SizeFitsEvent(st)) {
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  SharedEventData* data = nullptr;
  if (Flock(fd, LOCK_EX | LOCK_NB) == 0) {
    // Nobody holds the event: a fresh one, whatever the file holds. Other
    // openers wait on the folder lock, so the downgrade below is safe.
    data = Initialise(fd, manualReset, initiallySignaled);
  } else if (errno == EWOULDBLOCK) {
    data = Map(fd);
    if (data != nullptr &&
        __atomic_load_n(&data->magic, __ATOMIC_ACQUIRE) != kMagic) {
      ::munmap(data, sizeof(SharedEventData));
      ::close(fd);
      errno = EINVAL;
      return -1;
    }
  }
  if (data == nullptr || Flock(fd, LOCK_SH) != 0) {
    int saved = errno;
    if (data != nullptr) ::munmap(data, sizeof(SharedEventData));
    ::close(fd);
    errno = saved;
    return -1;
  }
  data_ = data;
  ref_ = fd;
  path_ = path;
  return 0;
}

void SharedEvent::Close() {
  if (data_ == nullptr) return;
  int saved = errno;
  ::munmap(data_, sizeof(SharedEventData));
  data_ = nullptr;
  DirLock lock;
  if (lock.ok() && Flock(ref_, LOCK_EX | LOCK_NB) == 0) ::unlink(path_.c_str());
  ::close(ref_);
  ref_ = -1;
  errno = saved;
}

int SharedEvent::Signal() {
  if (data_ == nullptr) {
    errno = EBADF;
    return -1;
  }
  uint32_t v = data_->word.load(std::memory_order_acquire);
  do {
    if (v & kSignaled) return 0;
  } while (!data_->word.compare_exchange_weak(
      v, ((v + kGeneration) | kSignaled) & ~kSleepers,
      std::memory_order_acq_rel));
  if (v & kSleepers) FutexWakeAll(&data_->word);
  return 0;
}

int SharedEvent::Reset() {
  if (data_ == nullptr) {
    errno = EBADF;
    return -1;
  }
  data_->word.fetch_and(~kSignaled, std::memory_order_acq_rel);
  return 0;
}

int SharedEvent::Pulse() {
  if (data_ == nullptr) {
    errno = EBADF;
    return -1;
  }
  if (!data_->manualReset) return Reset();
  uint32_t v = data_->word.load(std::memory_order_acquire);
  while (!data_->word.compare_exchange_weak(
      v, ((v & ~kSignaled) + kGeneration) & ~kSleepers,
      std::memory_order_acq_rel)) {
  }
  if (v & kSleepers) FutexWakeAll(&data_->word);
  return 0;
}

int SharedEvent::Wait(const ACE_Time_Value* deadline) {
  if (data_ == nullptr) {
    errno = EBADF;
    return -1;
  }
  struct timespec until;
  if (deadline != nullptr) until = *deadline;
  const bool manual = data_->manualReset != 0;
  uint32_t v = data_->word.load(std::memory_order_acquire);
  const uint32_t start = v;
  for (;;) {
    if (v & kSignaled) {
      if (manual) return 0;
      if (data_->word.compare_exchange_weak(v, v & ~kSignaled,
                                            std::memory_order_acq_rel))
        return 0;
      continue;  // another waiter took it, or it changed: look again
    }
    // A manual-reset event pulsed (or signalled and reset) since the wait
    // began releases this waiter too.
    if (manual && Generation(v) != Generation(start)) return 0;
    if (!(v & kSleepers)) {
      if (!data_->word.compare_exchange_weak(v, v | kSleepers,
                                             std::memory_order_acq_rel))
        continue;  // changed meanwhile: look again
      v |= kSleepers;
    }
    long r =
        FutexWaitUntil(&data_->word, v, deadline != nullptr ? &until : nullptr);
    int err = r == 0 ? 0 : errno;
    v = data_->word.load(std::memory_order_acquire);
    if (err == ETIMEDOUT && !(v & kSignaled) &&
        (!manual || Generation(v) == Generation(start))) {
      errno = ETIME;
      return -1;
    }
  }
}

uint32_t SharedEvent::State() const {
  return data_ == nullptr ? 0 : data_->word.load(std::memory_order_acquire);
}

uint32_t SharedEvent::WaitForChange(uint32_t seen, int timeoutMs) {
  if (data_ == nullptr) return 0;
  if (!(seen & kSleepers) &&
      !data_->word.compare_exchange_strong(seen, seen | kSleepers,
                                           std::memory_order_acq_rel))
    return seen;  // it changed before this thread could sleep
  seen |= kSleepers;
  struct timespec rel;
  rel.tv_sec = timeoutMs / 1000;
  rel.tv_nsec = static_cast<long>(timeoutMs % 1000) * 1000000L;
  FutexWaitFor(&data_->word, seen, &rel);
  return data_->word.load(std::memory_order_acquire);
}

void SharedEvent::WakeAll() {
  if (data_ != nullptr) FutexWakeAll(&data_->word);
}

}  // namespace internal
}  // namespace Common
