#include "common/completionport/completionport.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <liburing.h>
#include <mutex>
#include <new>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <time.h>
#include <unistd.h>
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

// Requests of the listening thread that wait for it to look for
// completions again before the submitter is woken for them.
const size_t kListenerBatch = 32;

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
  OpCode code;
};

// A packet in the port's own queue beside the ring: a posted one, or an
// operation that finished within its start call.
struct Ready {
  unsigned long key;
  CompletionPort::Overlapped* ov;
  OpCode code;
  ACE_INT64 result;
  ACE_UINT32 bytes;  // a posted packet's byte count
};

// A registered descriptor.
struct Entry {
  unsigned long key;
  bool socket;
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
  bool pollFirst;  // a socket that would have blocked just now
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
      // The start call found the socket empty (or full) a moment ago: wait
      // for it rather than try again.
      if (r.pollFirst) sqe->ioprio |= IORING_RECVSEND_POLL_FIRST;
      break;
    case OpCode::kSend:
      io_uring_prep_send(sqe, r.fd, r.buffer, r.length, MSG_NOSIGNAL);
      if (r.pollFirst) sqe->ioprio |= IORING_RECVSEND_POLL_FIRST;
      break;
    case OpCode::kAccept:
      io_uring_prep_accept(sqe, r.fd, nullptr, nullptr, SOCK_CLOEXEC);
      break;
    case OpCode::kPoll:
      io_uring_prep_poll_add(sqe, r.fd, static_cast<unsigned short>(r.events));
      break;
    case OpCode::kPost:  // never reaches the ring
      io_uring_prep_nop(sqe);
      break;
    case OpCode::kCancelAll:
      io_uring_prep_cancel64(sqe, 0, IORING_ASYNC_CANCEL_ANY);
      break;
  }
  io_uring_sqe_set_data(sqe, r.op);
}

// The byte count of a successful operation.
ACE_UINT32 BytesOf(OpCode code, ACE_INT64 result) {
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
  // Signalled by the ring for every completion it posts, and by whoever
  // queues a packet of the port's own while the listener sleeps on it.
  int event = -1;

  // Guards keys, pending, ready, idle and quit.
  std::mutex mu;
  std::condition_variable wake;
  std::unordered_map<int, Entry> keys;
  std::vector<Request> pending;
  std::deque<Ready> ready;
  bool idle = false;  // the submitter sleeps (or is about to) on `wake`
  bool quit = false;
  std::thread submitter;

  // The listener is about to block, or blocks, reading `event`.
  std::atomic<bool> sleeping{false};

  // Bumped (release) by the submitter before each submission and read
  // (acquire) by the reaper after each completion: the kernel orders a
  // completion after its submission, and this makes that order visible to
  // the thread sanitizer as well.
  std::atomic<unsigned long> submissions{0};
  // Operations queued for the ring and not yet returned by it.
  std::atomic<long> inflight{0};

  std::mutex listenMu;  // one listener at a time
  // The thread that last entered listen().
  std::atomic<std::thread::id> listener{};
  // Packets taken from `ready` by the listener, in order.
  std::deque<Ready> taken;
  std::atomic<int> status{1};
  std::atomic<Overlapped*> lastOv{nullptr};
  std::atomic<ACE_UINT32> lastBytes{0};

  int Start(OpCode code, ACE_HANDLE handle, void* buffer, ACE_UINT32 length,
            short events, Overlapped* ov);
  int Submit(const Request& r);
  int Finish(const Ready& r);
  void Run();
  void Queue(const Request& r);
  void Flush();
  // Takes one completion off the ring; false when there was none.
  bool Reap(io_uring_cqe* cqe, Op** op, int* result);
  bool TakeCompletion(Ready* out);
  bool TakeReady(Ready* out);
  // Wakes the submitter for requests the listener left waiting.
  void HandOver();
  void Next(Ready* out);
};

int CompletionPort::Impl::Start(OpCode code, ACE_HANDLE handle, void* buffer,
                                ACE_UINT32 length, short events,
                                Overlapped* ov) {
  if (ov == nullptr) {
    errno = EINVAL;
    return -1;
  }
  Entry e;
  {
    std::lock_guard<std::mutex> g(mu);
    auto it = keys.find(handle);
    if (it == keys.end()) {
      errno = EBADF;
      return -1;
    }
    e = it->second;
  }
  const bool tried =
      e.socket && (code == OpCode::kRecv || code == OpCode::kSend);
  if (tried) {
    // Try it at once, as a plain call that never waits: when the socket
    // has data (or room) the packet is ready without a trip through the
    // ring and its thread. Only a socket that would block goes to the ring.
    ssize_t n = code == OpCode::kRecv
                    ? recv(handle, buffer, length, MSG_DONTWAIT)
                    : send(handle, buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
      return Finish(Ready{e.key, ov, code, n >= 0 ? n : -errno, 0});
  }
  Op* op = new (std::nothrow) Op{e.key, ov, code};
  if (op == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  return Submit(
      Request{code, handle, buffer, length, events, ov->offset, op, tried});
}

int CompletionPort::Impl::Submit(const Request& r) {
  bool notify = false;
  try {
    std::lock_guard<std::mutex> g(mu);
    pending.push_back(r);
    inflight.fetch_add(1, std::memory_order_relaxed);
    // The listening thread (a handler, typically) will soon look for
    // completions again: its requests wait for that moment, or for a
    // batch to fill, and go to the submitter together.
    notify = idle && (listener.load(std::memory_order_relaxed) !=
                          std::this_thread::get_id() ||
                      pending.size() >= kListenerBatch);
    if (notify) idle = false;
  } catch (const std::bad_alloc&) {
    delete r.op;
    errno = ENOMEM;
    return -1;
  }
  if (notify) wake.notify_one();
  return 0;
}

int CompletionPort::Impl::Finish(const Ready& r) {
  try {
    std::lock_guard<std::mutex> g(mu);
    ready.push_back(r);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
  // Pairs with the listener's store before its last look (both seq_cst):
  // either it sees the packet or this sees it sleeping. The first to see
  // it wakes it.
  if (sleeping.exchange(false)) {
    const uint64_t one = 1;
    ssize_t n = write(event, &one, sizeof one);
    (void)n;  // a full counter already wakes the listener
  }
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

bool CompletionPort::Impl::TakeCompletion(Ready* out) {
  io_uring_cqe* cqe = nullptr;
  while (io_uring_peek_cqe(&ring, &cqe) == 0) {
    Op* op = nullptr;
    int result = 0;
    if (!Reap(cqe, &op, &result)) continue;
    *out = Ready{op->key, op->ov, op->code, result, 0};
    delete op;
    return true;
  }
  return false;
}

bool CompletionPort::Impl::TakeReady(Ready* out) {
  if (taken.empty()) {
    std::lock_guard<std::mutex> g(mu);
    taken.swap(ready);
  }
  if (taken.empty()) return false;
  *out = taken.front();
  taken.pop_front();
  return true;
}

void CompletionPort::Impl::HandOver() {
  bool notify = false;
  {
    std::lock_guard<std::mutex> g(mu);
    notify = idle && !pending.empty();
    if (notify) idle = false;
  }
  if (notify) wake.notify_one();
}

void CompletionPort::Impl::Next(Ready* out) {
  for (;;) {
    if (TakeCompletion(out) || TakeReady(out)) return;
    HandOver();
    sleeping.store(true);
    io_uring_cqe* cqe = nullptr;
    bool any = io_uring_peek_cqe(&ring, &cqe) == 0;
    if (!any) {
      std::lock_guard<std::mutex> g(mu);
      any = !ready.empty();
    }
    if (!any) {
      uint64_t count = 0;
      if (read(event, &count, sizeof count) < 0 && errno != EINTR) {
        status.store(0, std::memory_order_relaxed);
        COM_LOG((LM_ERROR,
                 "CompletionPort::listen(): GetQueuedCompletionStatus "
                 "returned false. Error Code: %u\n",
                 static_cast<unsigned>(errno)));
      }
    }
    sleeping.store(false, std::memory_order_relaxed);
  }
}

CompletionPort::CompletionPort(unsigned ringEntries) : impl_(new Impl) {
  io_uring_params params = {};
  params.flags =
      IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP | IORING_SETUP_SUBMIT_ALL;
  // Four completions per submission slot; the kernel clamps both sizes to
  // its maximum.
  params.cq_entries = ringEntries > (1u << 29) ? (1u << 31) : ringEntries * 4;
  int rc = ringEntries == 0
               ? -EINVAL
               : io_uring_queue_init_params(ringEntries, &impl_->ring, &params);
  if (rc < 0) {
    delete impl_;
    errno = -rc;
    throw CompletionPortException(kCreateError);
  }
  impl_->event = eventfd(0, EFD_CLOEXEC);
  if (impl_->event < 0 ||
      io_uring_register_eventfd(&impl_->ring, impl_->event) < 0) {
    if (impl_->event >= 0) close(impl_->event);
    io_uring_queue_exit(&impl_->ring);
    delete impl_;
    throw CompletionPortException(kCreateError);
  }
  try {
    impl_->submitter = std::thread([this] { impl_->Run(); });
  } catch (const std::system_error&) {
    io_uring_queue_exit(&impl_->ring);
    close(impl_->event);
    delete impl_;
    throw CompletionPortException(kCreateError);
  }
}

CompletionPort::~CompletionPort() {
  Impl& d = *impl_;
  if (d.inflight.load() > 0) {
    Request cancel = {OpCode::kCancelAll, -1, nullptr, 0, 0, 0, nullptr, false};
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
  close(d.event);
  delete impl_;
}

void CompletionPort::registerHandle(ACE_HANDLE handle, unsigned long key) {
  struct stat st;
  if (fstat(handle, &st) != 0) {
    COM_LOG((LM_CRITICAL,
             "CompletionPort::registerHandle: Problem registering completion "
             "port handle: OS Error %m.\n"));
    throw CompletionPortException(kRegisterError);
  }
  std::lock_guard<std::mutex> g(impl_->mu);
  impl_->keys[handle] = Entry{key, S_ISSOCK(st.st_mode)};
}

unsigned long CompletionPort::listen() {
  Impl& d = *impl_;
  std::lock_guard<std::mutex> g(d.listenMu);
  d.listener.store(std::this_thread::get_id(), std::memory_order_relaxed);
  for (;;) {
    d.lastBytes.store(0, std::memory_order_relaxed);
    d.lastOv.store(nullptr, std::memory_order_relaxed);
    Ready c;
    d.Next(&c);
    if (c.code == OpCode::kPost) {
      d.status.store(1, std::memory_order_relaxed);
      if (c.ov == nullptr) continue;
      d.lastBytes.store(c.bytes, std::memory_order_relaxed);
      d.lastOv.store(c.ov, std::memory_order_relaxed);
      return c.key;
    }
    c.ov->result = c.result;
    if (c.result >= 0) {
      d.status.store(1, std::memory_order_relaxed);
      d.lastBytes.store(BytesOf(c.code, c.result), std::memory_order_relaxed);
    } else {
      d.status.store(0, std::memory_order_relaxed);
      errno = static_cast<int>(-c.result);
      COM_LOG((LM_ERROR,
               "CompletionPort::listen(): GetQueuedCompletionStatus returned "
               "false. Error Code: %u\n",
               static_cast<unsigned>(-c.result)));
      errno = static_cast<int>(-c.result);
    }
    d.lastOv.store(c.ov, std::memory_order_relaxed);
    return c.key;
  }
}

void CompletionPort::handOverStarts() { impl_->HandOver(); }

int CompletionPort::GetAsyncIOStatus() {
  return impl_->status.load(std::memory_order_relaxed);
}

ACE_HANDLE CompletionPort::getHandle() const { return impl_->ring.ring_fd; }

int CompletionPort::startRead(ACE_HANDLE handle, void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  return impl_->Start(OpCode::kRead, handle, buffer, length, 0, ov);
}

int CompletionPort::startWrite(ACE_HANDLE handle, const void* buffer,
                               ACE_UINT32 length, Overlapped* ov) {
  return impl_->Start(OpCode::kWrite, handle, const_cast<void*>(buffer), length,
                      0, ov);
}

int CompletionPort::startRecv(ACE_HANDLE handle, void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  return impl_->Start(OpCode::kRecv, handle, buffer, length, 0, ov);
}

int CompletionPort::startSend(ACE_HANDLE handle, const void* buffer,
                              ACE_UINT32 length, Overlapped* ov) {
  return impl_->Start(OpCode::kSend, handle, const_cast<void*>(buffer), length,
                      0, ov);
}

int CompletionPort::startAccept(ACE_HANDLE listener, Overlapped* ov) {
  return impl_->Start(OpCode::kAccept, listener, nullptr, 0, 0, ov);
}

int CompletionPort::startPoll(ACE_HANDLE handle, short events, Overlapped* ov) {
  return impl_->Start(OpCode::kPoll, handle, nullptr, 0, events, ov);
}

int CompletionPort::post(unsigned long key, ACE_UINT32 bytes, Overlapped* ov) {
  return impl_->Finish(Ready{key, ov, OpCode::kPost, 0, bytes});
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
  // Whatever the call-backs started last is issued even if nobody listens
  // again.
  struct HandOver {
    CompletionPortReactor* reactor;
    ~HandOver() { reactor->handOverStarts(); }
  } handOver{this};
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
