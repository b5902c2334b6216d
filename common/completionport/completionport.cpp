#include "common/completionport/completionport.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <liburing.h>
#include <mutex>
#include <new>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unordered_map>
#include <vector>

#include <ace/Guard_T.h>

#include "common/base/comlog.h"

namespace {

const char kCreateError[] = "Error creating IO completion port";
const char kRegisterError[] = "CompletionPort::registerHandler error";
const char kRunningError[] =
    "Attempt to register a handler while the reactor is running";
const char kAddTransportError[] = "Unable to add transport";
const char kPortError[] = "Completion port error";

// How long the destructor waits for cancelled operations to come back.
const std::chrono::seconds kDrainLimit(3);

enum class OpCode : unsigned char {
  kRead,
  kWrite,
  kRecv,
  kSend,
  kAccept,
  kPoll,
  kPost,
  kCancelAll,
};

// What a submission carries in its user_data, back to listen().
struct Op {
  unsigned long key;
  CompletionPort::Overlapped* ov;
  ACE_UINT32 bytes;  // a posted packet's byte count
  OpCode code;
};

// One start call, waiting for the submitting thread.
struct Request {
  OpCode code;
  int fd;
  void* buffer;
  ACE_UINT32 length;
  short events;
  ACE_UINT64 offset;
  Op* op;
};

void Prepare(io_uring_sqe* sqe, const Request& r) {
  switch (r.code) {
    case OpCode::kRead:
      io_uring_prep_read(sqe, r.fd, r.buffer, r.length, r.offset);
      break;
    case OpCode::kWrite:
      io_uring_prep_write(sqe, r.fd, r.buffer, r.length, r.offset);
      break;
    case OpCode::kRecv:
      io_uring_prep_recv(sqe, r.fd, r.buffer, r.length, 0);
      break;
    case OpCode::kSend:
      io_uring_prep_send(sqe, r.fd, r.buffer, r.length, MSG_NOSIGNAL);
      break;
    case OpCode::kAccept:
      io_uring_prep_accept(sqe, r.fd, nullptr, nullptr, SOCK_CLOEXEC);
      break;
    case OpCode::kPoll:
      io_uring_prep_poll_add(sqe, r.fd, static_cast<unsigned short>(r.events));
      break;
    case OpCode::kPost:
      io_uring_prep_nop(sqe);
      break;
    case OpCode::kCancelAll:
      io_uring_prep_cancel64(sqe, 0, IORING_ASYNC_CANCEL_ANY);
      break;
  }
  io_uring_sqe_set_data(sqe, r.op);
}

// The byte count of a successful operation.
ACE_UINT32 BytesOf(OpCode code, int result) {
  switch (code) {
    case OpCode::kRead:
    case OpCode::kWrite:
    case OpCode::kRecv:
    case OpCode::kSend:
      return static_cast<ACE_UINT32>(result);
    default:
      return 0;
  }
}

}  // namespace

// ---------------------------------------------------------------- exceptions

CompletionPortException::CompletionPortException(const char* message)
    : message_(message != nullptr ? message : "") {}
CompletionPortException::~CompletionPortException() {}
const char* CompletionPortException::what() const noexcept {
  return message_.c_str();
}

CompletionPortReactorException::CompletionPortReactorException(
    const char* message)
    : message_(message != nullptr ? message : "") {}
CompletionPortReactorException::~CompletionPortReactorException() {}
const char* CompletionPortReactorException::what() const noexcept {
  return message_.c_str();
}

// ---------------------------------------------------------------- the port

struct CompletionPort::Impl {
  io_uring ring;

  // Guards keys, pending, idle and quit.
  std::mutex mu;
  std::condition_variable wake;
  std::unordered_map<int, unsigned long> keys;
  std::vector<Request> pending;
  bool idle = false;  // the submitter sleeps (or is about to) on `wake`
  bool quit = false;
  std::thread submitter;

  // Bumped (release) by the submitter before each submission and read
  // (acquire) by listen() after each completion: the kernel orders a
  // completion after its submission, and this makes that order visible to
  // the thread sanitizer as well.
  std::atomic<unsigned long> submissions{0};
  // Operations queued and not yet returned by the ring.
  std::atomic<long> inflight{0};

  std::mutex listenMu;  // one listener at a time
  std::atomic<int> status{1};
  std::atomic<Overlapped*> lastOv{nullptr};
  std::atomic<ACE_UINT32> lastBytes{0};

  int Enqueue(Request r, ACE_HANDLE handle, bool lookup);
  void Run();
  void Queue(const Request& r);
  void Flush();
  // Takes one completion off the ring; false when there was none.
  bool Reap(io_uring_cqe* cqe, Op** op, int* result);
};

int CompletionPort::Impl::Enqueue(Request r, ACE_HANDLE handle, bool lookup) {
  bool notify = false;
  try {
    std::lock_guard<std::mutex> g(mu);
    if (lookup) {
      auto it = keys.find(handle);
      if (it == keys.end()) {
        delete r.op;
        errno = EBADF;
        return -1;
      }
      r.op->key = it->second;
    }
    pending.push_back(r);
    inflight.fetch_add(1, std::memory_order_relaxed);
    notify = idle;
    idle = false;
  } catch (const std::bad_alloc&) {
    delete r.op;
    errno = ENOMEM;
    return -1;
  }
  if (notify) wake.notify_one();
  return 0;
}

void CompletionPort::Impl::Run() {
  std::vector<Request> batch;
  bool leaving = false;
  while (!leaving) {
    {
      std::unique_lock<std::mutex> g(mu);
      while (pending.empty() && !quit) {
        idle = true;
        wake.wait(g);
      }
      idle = false;
      leaving = quit;
      batch.swap(pending);
    }
    for (const Request& r : batch) Queue(r);
    Flush();
    batch.clear();
  }
}

void CompletionPort::Impl::Queue(const Request& r) {
  io_uring_sqe* sqe = io_uring_get_sqe(&ring);
  while (sqe == nullptr) {
    // The ring is full of prepared entries: hand them to the kernel and
    // take the freed room; nothing is dropped.
    Flush();
    sqe = io_uring_get_sqe(&ring);
  }
  Prepare(sqe, r);
}

void CompletionPort::Impl::Flush() {
  if (io_uring_sq_ready(&ring) == 0) return;
  submissions.fetch_add(1, std::memory_order_release);
  bool logged = false;
  for (;;) {
    int rc = io_uring_submit(&ring);
    if (rc >= 0) {
      if (io_uring_sq_ready(&ring) == 0) return;
      continue;
    }
    if (rc == -EINTR) continue;
    if (rc != -EAGAIN && rc != -EBUSY && !logged) {
      errno = -rc;
      COM_LOG((LM_ERROR,
               "CompletionPort::submit: io_uring_enter failed, retrying. OS "
               "Error: %m\n"));
      logged = true;
    }
    // The kernel holds too many completions nobody has reaped yet (or
    // lacks memory): give the listener time and retry.
    timespec pause = {0, 200 * 1000};
    nanosleep(&pause, nullptr);
  }
}

bool CompletionPort::Impl::Reap(io_uring_cqe* cqe, Op** op, int* result) {
  *op = static_cast<Op*>(io_uring_cqe_get_data(cqe));
  *result = cqe->res;
  io_uring_cqe_seen(&ring, cqe);
  if (*op == nullptr) return false;  // our own cancel request
  submissions.load(std::memory_order_acquire);
  inflight.fetch_sub(1, std::memory_order_relaxed);
  return true;
}

CompletionPort::CompletionPort(unsigned ringEntries) : impl_(new Impl) {
  io_uring_params params = {};
  params.flags =
      IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP | IORING_SETUP_SUBMIT_ALL;
  params.cq_entries = ringEntries * 4;
  int rc = ringEntries == 0
               ? -EINVAL
               : io_uring_queue_init_params(ringEntries, &impl_->ring, &params);
  if (rc < 0) {
    delete impl_;
    errno = -rc;
    throw CompletionPortException(kCreateError);
  }
  try {
    impl_->submitter = std::thread([this] { impl_->Run(); });
  } catch (const std::system_error&) {
    io_uring_queue_exit(&impl_->ring);
    delete impl_;
    throw CompletionPortException(kCreateError);
  }
}

CompletionPort::~CompletionPort() {
  Impl& d = *impl_;
  if (d.inflight.load() > 0) {
    Request cancel = {OpCode::kCancelAll, -1, nullptr, 0, 0, 0, nullptr};
    {
      std::lock_guard<std::mutex> g(d.mu);
      d.pending.push_back(cancel);
      if (d.idle) {
        d.idle = false;
        d.wake.notify_one();
      }
    }
    auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
    while (d.inflight.load() > 0 &&
           std::chrono::steady_clock::now() < deadline) {
      io_uring_cqe* cqe = nullptr;
      __kernel_timespec wait = {0, 100 * 1000 * 1000};
      if (io_uring_wait_cqe_timeout(&d.ring, &cqe, &wait) < 0) continue;
      Op* op = nullptr;
      int result = 0;
      if (d.Reap(cqe, &op, &result)) delete op;
    }
  }
  {
    std::lock_guard<std::mutex> g(d.mu);
    d.quit = true;
  }
  d.wake.notify_one();
  d.submitter.join();
  io_uring_cqe* cqe = nullptr;
  while (io_uring_peek_cqe(&d.ring, &cqe) == 0) {
    Op* op = nullptr;
    int result = 0;
    if (d.Reap(cqe, &op, &result)) delete op;
  }
  io_uring_queue_exit(&d.ring);
  delete impl_;
}

void CompletionPort::registerHandle(ACE_HANDLE handle, unsigned long key) {
  if (handle == ACE_INVALID_HANDLE || fcntl(handle, F_GETFD) < 0) {
    if (handle == ACE_INVALID_HANDLE) errno = EBADF;
    COM_LOG((LM_CRITICAL,
             "CompletionPort::registerHandle: Problem registering completion "
             "port handle: OS Error %m.\n"));
    throw CompletionPortException(kRegisterError);
  }
  std::lock_guard<std::mutex> g(impl_->mu);
  impl_->keys[handle] = key;
}

unsigned long CompletionPort::listen() {
  Impl& d = *impl_;
  std::lock_guard<std::mutex> g(d.listenMu);
  for (;;) {
    d.lastBytes.store(0, std::memory_order_relaxed);
    d.lastOv.store(nullptr, std::memory_order_relaxed);
    io_uring_cqe* cqe = nullptr;
    int rc = io_uring_wait_cqe(&d.ring, &cqe);
    if (rc < 0) {
      if (rc == -EINTR) continue;
      d.status.store(0, std::memory_order_relaxed);
      errno = -rc;
      COM_LOG((LM_ERROR,
               "CompletionPort::listen(): GetQueuedCompletionStatus returned "
               "false. Error Code: %u\n",
               static_cast<unsigned>(-rc)));
      continue;
    }
    Op* op = nullptr;
    int result = 0;
    if (!d.Reap(cqe, &op, &result)) continue;
    const unsigned long key = op->key;
    Overlapped* const ov = op->ov;
    const OpCode code = op->code;
    const ACE_UINT32 posted = op->bytes;
    delete op;

    if (code == OpCode::kPost) {
      d.status.store(1, std::memory_order_relaxed);
      if (ov == nullptr) continue;
      d.lastBytes.store(posted, std::memory_order_relaxed);
      d.lastOv.store(ov, std::memory_order_relaxed);
      return key;
    }
    ov->result = result;
    if (result >= 0) {
      d.status.store(1, std::memory_order_relaxed);
      d.lastBytes.store(BytesOf(code, result), std::memory_order_relaxed);
    } else {
      d.status.store(0, std::memory_order_relaxed);
      errno = -result;
      COM_LOG((LM_ERROR,
               "CompletionPort::listen(): GetQueuedCompletionStatus returned "
               "false. Error Code: %u\n",
               static_cast<unsigned>(-result)));
      errno = -result;
    }
    d.lastOv.store(ov, std::memory_order_relaxed);
    return key;
  }
}

int CompletionPort::GetAsyncIOStatus() {
  return impl_->status.load(std::memory_order_relaxed);
}

ACE_HANDLE CompletionPort::getHandle() const { return impl_->ring.ring_fd; }

namespace {

// A start call's request, with its Op; null when out of memory.
bool MakeRequest(Request* r, OpCode code, ACE_HANDLE fd, void* buffer,
                 ACE_UINT32 length, short events,
                 CompletionPort::Overlapped* ov) {
  if (ov == nullptr) {
    errno = EINVAL;
    return false;
  }
  Op* op = new (std::nothrow) Op{0, ov, 0, code};
  if (op == nullptr) {
    errno = ENOMEM;
    return false;
  }
  *r = Request{code, fd, buffer, length, events, ov->offset, op};
  return true;
}

}  // namespace

int CompletionPort::startRead(ACE_HANDLE handle, void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kRead, handle, buffer, length, 0, ov)) return -1;
  return impl_->Enqueue(r, handle, true);
}

int CompletionPort::startWrite(ACE_HANDLE handle, const void* buffer,
                               ACE_UINT32 length, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kWrite, handle, const_cast<void*>(buffer),
                   length, 0, ov))
    return -1;
  return impl_->Enqueue(r, handle, true);
}

int CompletionPort::startRecv(ACE_HANDLE handle, void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kRecv, handle, buffer, length, 0, ov)) return -1;
  return impl_->Enqueue(r, handle, true);
}

int CompletionPort::startSend(ACE_HANDLE handle, const void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kSend, handle, const_cast<void*>(buffer), length,
                   0, ov))
    return -1;
  return impl_->Enqueue(r, handle, true);
}

int CompletionPort::startAccept(ACE_HANDLE listener, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kAccept, listener, nullptr, 0, 0, ov)) return -1;
  return impl_->Enqueue(r, listener, true);
}

int CompletionPort::startPoll(ACE_HANDLE handle, short events, Overlapped* ov) {
  Request r;
  if (!MakeRequest(&r, OpCode::kPoll, handle, nullptr, 0, events, ov))
    return -1;
  return impl_->Enqueue(r, handle, true);
}

int CompletionPort::post(unsigned long key, ACE_UINT32 bytes, Overlapped* ov) {
  Op* op = new (std::nothrow) Op{key, ov, bytes, OpCode::kPost};
  if (op == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  Request r = {OpCode::kPost, -1, nullptr, 0, 0, 0, op};
  return impl_->Enqueue(r, ACE_INVALID_HANDLE, false);
}

CompletionPort::Overlapped* CompletionPort::lastOverlapped() const {
  return impl_->lastOv.load(std::memory_order_relaxed);
}

ACE_UINT32 CompletionPort::lastBytes() const {
  return impl_->lastBytes.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------- reactor

CompletionPortReactor::CompletionPortReactor(unsigned ringEntries)
    : CompletionPort(ringEntries), nextKey_(1), started_(0), active_(false) {}

CompletionPortReactor::~CompletionPortReactor() {}

void CompletionPortReactor::registerHandler(ACE_HANDLE handle,
                                            ACE_Event_Handler* handler) {
  if (active_.load()) throw CompletionPortReactorException(kRunningError);
  ACE_Guard<ACE_Recursive_Thread_Mutex> g(lock_);
  try {
    registerHandle(handle, nextKey_);
  } catch (const CompletionPortException& e) {
    COM_LOG((LM_CRITICAL,
             "CompletionPortReactor::registerHandler: CompletionPortException: "
             "%s\n",
             e.what()));
    throw CompletionPortReactorException(kAddTransportError);
  }
  handlers_[nextKey_] = std::make_pair(handle, handler);
  ++nextKey_;
}

void CompletionPortReactor::start() {
  if (active_.exchange(true)) return;
  started_.signal();
}

void CompletionPortReactor::stop() {
  active_.store(false);
  post(kStopKey, 0, &stopRecord_);
}

bool CompletionPortReactor::isActive() { return active_.load(); }

void CompletionPortReactor::handleEvents() {
  started_.wait();
  if (!active_.load()) return;
  ACE_Guard<ACE_Recursive_Thread_Mutex> g(lock_);
  try {
    for (auto& entry : handlers_) dispatchEvent(entry.second);
    for (;;) {
      const unsigned long key = listen();
      if (!active_.load()) return;
      auto it = handlers_.find(key);
      if (it == handlers_.end()) {
        // Keys are 32-bit on the port's home platform: the stop packet's
        // 0xFFFFFFFF prints as -1.
        COM_LOG((LM_WARNING,
                 "CompletionPortReactor::handleEvents: Received an unknown "
                 "completion key: %d.\n",
                 static_cast<int>(static_cast<ACE_UINT32>(key))));
        continue;
      }
      dispatchEvent(it->second);
    }
  } catch (const CompletionPortException& e) {
    COM_LOG((LM_CRITICAL,
             "CompletionPortReactor::handleEvents: CompletionPortException: "
             "%s\n",
             e.what()));
    throw CompletionPortReactorException(kPortError);
  }
}

void CompletionPortReactor::dispatchEvent(
    std::pair<ACE_HANDLE, ACE_Event_Handler*>& entry) {
  if (GetAsyncIOStatus() != 0) {
    entry.second->handle_input(entry.first);
  } else {
    entry.second->handle_exception(entry.first);
  }
}
