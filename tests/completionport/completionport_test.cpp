#include "common/completionport/completionport.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "support/logcapture.h"
#include "support/tempfolder.h"
#include "support/testbytes.h"

namespace {

using Overlapped = CompletionPort::Overlapped;
using testsupport::LogCapture;

bool WaitFor(const std::function<bool()>& done,
             std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool Logged(const LogCapture& log, ACE_Log_Priority p,
            const std::string& text) {
  for (const auto& r : log.records())
    if (r.priority == p && r.text == text) return true;
  return false;
}

// A listening TCP socket on 127.0.0.1 and its port.
int Listener(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
      ::listen(fd, 64) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    close(fd);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return fd;
}

int Connect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool SendAll(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    ssize_t n = send(fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string RecvExactly(int fd, size_t n) {
  std::string s(n, '\0');
  size_t done = 0;
  while (done < n) {
    ssize_t got = recv(fd, &s[done], n - done, 0);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  s.resize(done);
  return s;
}

// ------------------------------------------------------------ exceptions

TEST(CompletionPortException, KeepTheirTextThroughCopies) {
  CompletionPortException a("Error creating IO completion port");
  CompletionPortReactorException b("Completion port error");
  CompletionPortException a2(a);
  CompletionPortReactorException b2("x");
  b2 = b;
  EXPECT_STREQ("Error creating IO completion port", a2.what());
  EXPECT_STREQ("Completion port error", b2.what());
  EXPECT_STREQ("", CompletionPortException(nullptr).what());
  const std::exception& base = b2;
  EXPECT_STREQ("Completion port error", base.what());
}

// ------------------------------------------------------------ the port

TEST(CompletionPort, RingSizes) {
  try {
    CompletionPort port(0);
    ADD_FAILURE() << "no exception";
  } catch (const CompletionPortException& e) {
    EXPECT_STREQ("Error creating IO completion port", e.what());
  }
  // Odd and oversized rings are rounded and held to the kernel's limit, and
  // work.
  for (unsigned entries : {1u, 3u, 1u << 31}) {
    SCOPED_TRACE(entries);
    CompletionPort port(entries);
    int fd = eventfd(1, EFD_CLOEXEC);  // readable
    port.registerHandle(fd, 2);
    Overlapped ov[3];
    for (Overlapped& o : ov) ASSERT_EQ(0, port.startPoll(fd, POLLIN, &o));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(2ul, port.listen());
    EXPECT_EQ(POLLIN, ov[2].result);
    close(fd);
  }
}

TEST(CompletionPort, RegisterRefusesDescriptorsThatAreNotOpen) {
  CompletionPort port;
  int closed = eventfd(0, EFD_CLOEXEC);
  close(closed);
  for (ACE_HANDLE h : {ACE_INVALID_HANDLE, closed}) {
    SCOPED_TRACE(h);
    LogCapture log;
    try {
      port.registerHandle(h, 1);
      ADD_FAILURE() << "no exception";
    } catch (const CompletionPortException& e) {
      EXPECT_STREQ("CompletionPort::registerHandler error", e.what());
    }
    EXPECT_TRUE(Logged(log, LM_CRITICAL,
                       "CompletionPort::registerHandle: Problem registering "
                       "completion port handle: OS Error Bad file "
                       "descriptor.\n"));
  }
}

TEST(CompletionPort, StartCallsNeedADescriptorRegisteredWithThisPort) {
  CompletionPort port, other;
  int fd = eventfd(0, EFD_CLOEXEC);
  other.registerHandle(fd, 1);
  char buf[8];
  Overlapped ov;
  const std::vector<std::pair<const char*, std::function<int(Overlapped*)>>>
      calls = {
          {"read",
           [&](Overlapped* o) { return port.startRead(fd, buf, 8, o); }},
          {"write",
           [&](Overlapped* o) { return port.startWrite(fd, buf, 8, o); }},
          {"recv",
           [&](Overlapped* o) { return port.startRecv(fd, buf, 8, o); }},
          {"send",
           [&](Overlapped* o) { return port.startSend(fd, buf, 8, o); }},
          {"accept", [&](Overlapped* o) { return port.startAccept(fd, o); }},
          {"poll",
           [&](Overlapped* o) { return port.startPoll(fd, POLLIN, o); }},
      };
  for (const auto& c : calls) {
    SCOPED_TRACE(c.first);
    errno = 0;
    EXPECT_EQ(-1, c.second(&ov));
    EXPECT_EQ(EBADF, errno);
  }
  port.registerHandle(fd, 1);
  for (const auto& c : calls) {
    SCOPED_TRACE(c.first);
    errno = 0;
    EXPECT_EQ(-1, c.second(nullptr));
    EXPECT_EQ(EINVAL, errno);
  }
  close(fd);
}

class CompletionPortFile : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.ok());
    content_ = testsupport::RandomBytes(1 << 20, 7);
    path_ = dir_.Write("data.bin", content_);
    fd_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }

  testsupport::TempFolder dir_;
  std::string content_, path_;
  int fd_ = -1;
};

TEST_F(CompletionPortFile, ReadsAtOffsetsByteForByte) {
  CompletionPort port;
  port.registerHandle(fd_, 42);
  const size_t size = content_.size();
  struct Row {
    ACE_UINT64 offset;
    ACE_UINT32 length;
    size_t expected;  // bytes the read gives
  } rows[] = {
      {0, 4096, 4096},       {1, 10, 10},
      {65535, 70000, 70000}, {size - 5, 100, 5},  // short read at the end
      {size, 10, 0},                              // at the end
      {size + 10, 10, 0},                         // past the end
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.offset);
    std::string buf(r.length, '\0');
    Overlapped ov;
    ov.offset = r.offset;
    ASSERT_EQ(0, port.startRead(fd_, &buf[0], r.length, &ov));
    EXPECT_EQ(42ul, port.listen());
    EXPECT_EQ(1, port.GetAsyncIOStatus());
    EXPECT_EQ(&ov, port.lastOverlapped());
    EXPECT_EQ(r.expected, port.lastBytes());
    EXPECT_EQ(static_cast<ACE_INT64>(r.expected), ov.result);
    EXPECT_EQ(content_.substr(r.offset < size ? r.offset : size, r.expected),
              buf.substr(0, r.expected));
  }
}

// Sixteen blocks in flight at once, each checked against its own offset.
TEST_F(CompletionPortFile, ManyReadsInFlightLandInTheirOwnBuffers) {
  CompletionPort port(8);  // fewer ring entries than operations
  port.registerHandle(fd_, 1);
  const ACE_UINT32 block = 65536;
  struct Block {
    Overlapped ov;
    std::string buf;
  };
  std::vector<Block> blocks(16);
  for (size_t i = 0; i < blocks.size(); ++i) {
    blocks[i].buf.assign(block, '\0');
    blocks[i].ov.offset = i * block;
    blocks[i].ov.user = &blocks[i];
    ASSERT_EQ(0, port.startRead(fd_, &blocks[i].buf[0], block, &blocks[i].ov));
  }
  std::map<Overlapped*, int> seen;
  for (size_t i = 0; i < blocks.size(); ++i) {
    ASSERT_EQ(1ul, port.listen());
    ASSERT_EQ(block, port.lastBytes());
    ++seen[port.lastOverlapped()];
  }
  for (Block& b : blocks) {
    EXPECT_EQ(1, seen[&b.ov]);
    EXPECT_TRUE(content_.compare(b.ov.offset, block, b.buf) == 0)
        << "block at " << b.ov.offset;
  }
}

TEST_F(CompletionPortFile, WritesAtOffsetsByteForByte) {
  CompletionPort port;
  port.registerHandle(fd_, 3);
  std::string expected = content_;
  struct Row {
    ACE_UINT64 offset;
    size_t length;
  } rows[] = {
      {0, 1},
      {4095, 2},
      {100000, 65536},
      {content_.size() - 3, 10},
      {content_.size() + 4096, 20},  // leaves a hole of zeros
  };
  uint32_t seed = 100;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.offset);
    std::string data = testsupport::RandomBytes(r.length, seed++);
    Overlapped ov;
    ov.offset = r.offset;
    ASSERT_EQ(0, port.startWrite(fd_, data.data(),
                                 static_cast<ACE_UINT32>(r.length), &ov));
    EXPECT_EQ(3ul, port.listen());
    EXPECT_EQ(1, port.GetAsyncIOStatus());
    EXPECT_EQ(r.length, port.lastBytes());
    if (expected.size() < r.offset + r.length)
      expected.resize(r.offset + r.length, '\0');
    expected.replace(r.offset, r.length, data);
  }
  EXPECT_TRUE(expected == testsupport::TempFolder::Read(path_));
}

TEST(CompletionPort, FailedOperationsComeBackWithStatusZeroAndTheirError) {
  testsupport::TempFolder dir;
  std::string path = dir.Write("f", "some bytes");
  int readOnly = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int closedLater = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
  CompletionPort port;
  for (int fd : {readOnly, closedLater, sv[0]}) port.registerHandle(fd, fd);
  close(closedLater);  // behind the port's back
  char buf[16] = "data";
  struct Row {
    const char* what;
    std::function<int(Overlapped*)> start;
    int fd;
    int error;
  } rows[] = {
      {"read of a closed descriptor",
       [&](Overlapped* o) { return port.startRead(closedLater, buf, 4, o); },
       closedLater, EBADF},
      {"write to a read-only file",
       [&](Overlapped* o) { return port.startWrite(readOnly, buf, 4, o); },
       readOnly, EBADF},
      {"receive on a file",
       [&](Overlapped* o) { return port.startRecv(readOnly, buf, 4, o); },
       readOnly, ENOTSOCK},
      {"accept on a socket that does not listen",
       [&](Overlapped* o) { return port.startAccept(sv[0], o); }, sv[0],
       EINVAL},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    LogCapture log;
    Overlapped ov;
    ASSERT_EQ(0, r.start(&ov));
    EXPECT_EQ(static_cast<unsigned long>(r.fd), port.listen());
    EXPECT_EQ(0, port.GetAsyncIOStatus());
    EXPECT_EQ(r.error, errno);
    EXPECT_EQ(&ov, port.lastOverlapped());
    EXPECT_EQ(0u, port.lastBytes());
    EXPECT_EQ(-r.error, ov.result);
    EXPECT_TRUE(Logged(log, LM_ERROR,
                       "CompletionPort::listen(): GetQueuedCompletionStatus "
                       "returned false. Error Code: " +
                           std::to_string(r.error) + "\n"));
  }
  // The next good packet sets the status back.
  Overlapped ov;
  port.post(9, 0, &ov);
  EXPECT_EQ(9ul, port.listen());
  EXPECT_EQ(1, port.GetAsyncIOStatus());
  close(readOnly);
  close(sv[0]);
  close(sv[1]);
}

TEST(CompletionPort, PostedPacketsKeepKeyBytesAndRecordInOrder) {
  CompletionPort port;
  Overlapped a, b;
  a.result = 77;
  ASSERT_EQ(0, port.post(5, 1234, &a));
  ASSERT_EQ(0, port.post(6, 0, nullptr));  // consumed, never returned
  ASSERT_EQ(0, port.post(0xFFFFFFFFul, 1, &b));
  EXPECT_EQ(5ul, port.listen());
  EXPECT_EQ(1234u, port.lastBytes());
  EXPECT_EQ(&a, port.lastOverlapped());
  EXPECT_EQ(77, a.result);  // a posted record is left as given
  EXPECT_EQ(0xFFFFFFFFul, port.listen());
  EXPECT_EQ(&b, port.lastOverlapped());
  EXPECT_EQ(1u, port.lastBytes());
}

// More operations than the ring holds, started from eight threads before
// anyone listens, with posted packets in between: the submission and
// completion queues both fill, and every packet still arrives exactly once,
// each read with its own bytes.
TEST(CompletionPort, FullRingsLoseNothing) {
  testsupport::TempFolder dir;
  const std::string content = testsupport::RandomBytes(1 << 16, 3);
  int fd = open(dir.Write("f", content).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  CompletionPort port(2);
  port.registerHandle(fd, 100);
  const int kThreads = 8, kEach = 300;
  std::vector<Overlapped> records(kThreads * kEach);
  std::vector<std::string> buffers(records.size(), std::string(8, '\0'));
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        size_t n = static_cast<size_t>(t * kEach + i);
        int rc;
        if (i % 3 == 0) {
          rc = port.post(t + 1, i, &records[n]);
        } else {
          records[n].offset = n * 8;
          rc = port.startRead(fd, &buffers[n][0], 8, &records[n]);
        }
        if (rc != 0) ++failures;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, failures.load());
  std::vector<int> seen(records.size());
  for (size_t k = 0; k < records.size(); ++k) {
    unsigned long key = port.listen();
    size_t n = static_cast<size_t>(port.lastOverlapped() - &records[0]);
    ASSERT_LT(n, records.size());
    ++seen[n];
    if (n % kEach % 3 == 0) {
      EXPECT_EQ(n / kEach + 1, key);
      EXPECT_EQ(n % kEach, port.lastBytes());
    } else {
      EXPECT_EQ(100ul, key);
      EXPECT_EQ(8u, port.lastBytes());
      EXPECT_EQ(content.substr(n * 8, 8), buffers[n]) << n;
    }
  }
  for (size_t n = 0; n < seen.size(); ++n) ASSERT_EQ(1, seen[n]) << n;
  close(fd);
}

// Socket receives and sends are tried at once; what finishes there still
// arrives as a packet, failures included.
TEST(CompletionPort, SocketOperationsThatFinishAtOnce) {
  CompletionPort port;
  struct Row {
    const char* what;
    std::function<void(int peer)> before;  // done to the peer first
    bool send;
    ACE_INT64 result;
  } rows[] = {
      {"receive of data already there",
       [](int peer) { ASSERT_EQ(3, send(peer, "xyz", 3, 0)); }, false, 3},
      {"receive after the peer's shutdown",
       [](int peer) { shutdown(peer, SHUT_WR); }, false, 0},
      {"send with room", [](int) {}, true, 5},
      {"send to a closed peer", [](int peer) { close(peer); }, true, -EPIPE},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
    port.registerHandle(sv[0], 4);
    r.before(sv[1]);
    char buf[8] = "hello";
    Overlapped ov;
    ASSERT_EQ(0, r.send ? port.startSend(sv[0], buf, 5, &ov)
                        : port.startRecv(sv[0], buf, 8, &ov));
    EXPECT_EQ(4ul, port.listen());
    EXPECT_EQ(&ov, port.lastOverlapped());
    EXPECT_EQ(r.result, ov.result);
    EXPECT_EQ(r.result >= 0 ? 1 : 0, port.GetAsyncIOStatus());
    close(sv[0]);
    if (r.result != -EPIPE) close(sv[1]);
  }
}

// The kernel cancels io_uring requests of a thread that exits; the port's
// own thread submits, so a receive started from a thread that ends at once
// still completes.
TEST(CompletionPort, OperationStartedByAThreadThatExitsCompletes) {
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
  CompletionPort port;
  port.registerHandle(sv[0], 1);
  char buf[16] = {};
  Overlapped ov;
  std::thread([&] {
    EXPECT_EQ(0, port.startRecv(sv[0], buf, 16, &ov));
  }).join();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(5, send(sv[1], "hello", 5, 0));
  EXPECT_EQ(1ul, port.listen());
  EXPECT_EQ(1, port.GetAsyncIOStatus());
  EXPECT_EQ(5, ov.result);
  EXPECT_EQ("hello", std::string(buf, 5));
  close(sv[0]);
  close(sv[1]);
}

// Completion work of a request runs on its submitter and interrupts it; a
// thread that starts an operation and then blocks in a timed receive must
// see its timeout, not EINTR.
TEST(CompletionPort, TimedCallOnAStartingThreadIsNotInterrupted) {
  int a[2], b[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, a));
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, b));
  CompletionPort port;
  port.registerHandle(a[0], 1);
  char buf[16] = {};
  Overlapped ov;
  std::atomic<bool> blocking{false};
  int timedErrno = 0;
  std::thread starter([&] {
    ASSERT_EQ(0, port.startRecv(a[0], buf, 16, &ov));
    timeval limit = {0, 500 * 1000};
    setsockopt(b[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char c;
    blocking = true;
    ssize_t n = recv(b[0], &c, 1, 0);
    timedErrno = n < 0 ? errno : 0;
  });
  ASSERT_TRUE(WaitFor([&] { return blocking.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(3, send(a[1], "abc", 3, 0));  // completes during the timed call
  EXPECT_EQ(1ul, port.listen());
  EXPECT_EQ(3, ov.result);
  starter.join();
  EXPECT_EQ(EAGAIN, timedErrno) << strerror(timedErrno);
  for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
}

TEST(CompletionPort, PollReportsReadiness) {
  int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  CompletionPort port;
  port.registerHandle(fd, 8);
  Overlapped ov;
  ASSERT_EQ(0, port.startPoll(fd, POLLIN, &ov));
  uint64_t one = 1;
  ASSERT_EQ(8, write(fd, &one, 8));
  EXPECT_EQ(8ul, port.listen());
  EXPECT_TRUE(ov.result & POLLIN);
  EXPECT_EQ(0u, port.lastBytes());
  close(fd);
}

// One thread sits in listen() while four others register descriptors and
// start reads, polls and posts on them.
TEST(CompletionPort, CallsFromOtherThreadsWhileOneListens) {
  testsupport::TempFolder dir;
  const std::string content = testsupport::RandomBytes(4096, 9);
  const std::string path = dir.Write("f", content);
  CompletionPort port(16);
  const int kThreads = 4, kRounds = 200;
  std::atomic<int> wrong{0};
  std::atomic<int> done[kThreads] = {};  // packets back, per thread
  std::thread listener([&] {
    for (int n = 0; n < kThreads * kRounds * 3; ++n) {
      unsigned long key = port.listen();
      if (port.lastOverlapped() == nullptr || port.GetAsyncIOStatus() != 1 ||
          key < 10 || key % 10 >= kThreads)
        ++wrong;
      else
        ++done[key % 10];
    }
  });
  std::vector<std::thread> starters;
  for (int t = 0; t < kThreads; ++t)
    starters.emplace_back([&, t] {
      int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      int ev = eventfd(1, EFD_CLOEXEC);  // always readable
      port.registerHandle(file, 10 + t);
      port.registerHandle(ev, 20 + t);
      std::vector<Overlapped> ovs(3 * kRounds);
      std::vector<std::string> bufs(kRounds, std::string(16, '\0'));
      for (int i = 0; i < kRounds; ++i) {
        ovs[3 * i].offset = static_cast<ACE_UINT64>(i) * 16;
        if (port.startRead(file, &bufs[i][0], 16, &ovs[3 * i]) != 0 ||
            port.startPoll(ev, POLLIN, &ovs[3 * i + 1]) != 0 ||
            port.post(30 + t, 1, &ovs[3 * i + 2]) != 0)
          ++wrong;
      }
      // The records live until all of this thread's packets are back.
      if (!WaitFor([&] { return done[t] == 3 * kRounds; })) ++wrong;
      for (int i = 0; i < kRounds; ++i)
        if (ovs[3 * i].result != 16 || !(ovs[3 * i + 1].result & POLLIN) ||
            bufs[i] != content.substr(static_cast<size_t>(i) * 16, 16))
          ++wrong;
      close(file);
      close(ev);
    });
  for (auto& s : starters) s.join();
  listener.join();
  EXPECT_EQ(0, wrong.load());
}

// ------------------------------------------------------------ the reactor

// Records what the reactor hands it; `onInput` runs after recording.
struct Recorder : ACE_Event_Handler {
  explicit Recorder(CompletionPortReactor& r) : reactor(r) {}
  int handle_input(ACE_HANDLE h) override {
    inputs.push_back({h, reactor.lastOverlapped()});
    if (onInput) onInput(reactor.lastOverlapped());
    return 0;
  }
  int handle_exception(ACE_HANDLE h) override {
    exceptions.push_back({h, reactor.lastOverlapped()});
    if (onException) onException(reactor.lastOverlapped());
    return 0;
  }
  CompletionPortReactor& reactor;
  std::vector<std::pair<ACE_HANDLE, Overlapped*>> inputs, exceptions;
  std::function<void(Overlapped*)> onInput, onException;
};

struct Fds {
  explicit Fds(int n) {
    for (int i = 0; i < n; ++i) fds.push_back(eventfd(0, EFD_CLOEXEC));
  }
  ~Fds() {
    for (int fd : fds) close(fd);
  }
  std::vector<int> fds;
};

// Keys go 1, 2, 3 in registration order; priming runs in that order; an
// unknown key is logged and skipped; registering while running throws.
TEST(CompletionPortReactor, KeysPrimingUnknownKeysAndLateRegistration) {
  CompletionPortReactor reactor;
  Fds fds(3);
  Recorder h1(reactor), h2(reactor), h3(reactor);
  std::vector<int> primed;
  Overlapped toKey1, toKey2, unknown4, unknown99, last;
  std::string lateError;
  h1.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) primed.push_back(1);
  };
  h2.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) primed.push_back(2);
  };
  h3.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) {
      primed.push_back(3);
      try {
        reactor.registerHandler(fds.fds[0], &h1);
      } catch (const CompletionPortReactorException& e) {
        lateError = e.what();
      }
      reactor.post(2, 0, &toKey2);
      reactor.post(99, 0, &unknown99);
      reactor.post(4, 0, &unknown4);
      reactor.post(1, 0, &toKey1);
      reactor.post(3, 0, &last);
    } else if (ov == &last) {
      reactor.stop();
    }
  };
  reactor.registerHandler(fds.fds[0], &h1);
  reactor.registerHandler(fds.fds[1], &h2);
  reactor.registerHandler(fds.fds[2], &h3);
  LogCapture log;
  reactor.start();
  EXPECT_TRUE(reactor.isActive());
  reactor.handleEvents();
  EXPECT_FALSE(reactor.isActive());
  EXPECT_EQ((std::vector<int>{1, 2, 3}), primed);
  EXPECT_EQ("Attempt to register a handler while the reactor is running",
            lateError);
  ASSERT_EQ(2u, h1.inputs.size());
  EXPECT_EQ(fds.fds[0], h1.inputs[1].first);
  EXPECT_EQ(&toKey1, h1.inputs[1].second);
  ASSERT_EQ(2u, h2.inputs.size());
  EXPECT_EQ(&toKey2, h2.inputs[1].second);
  EXPECT_EQ(2u, h3.inputs.size());
  for (int key : {99, 4})
    EXPECT_TRUE(Logged(log, LM_WARNING,
                       "CompletionPortReactor::handleEvents: Received an "
                       "unknown completion key: " +
                           std::to_string(key) + ".\n"))
        << key;
}

// A port failure inside a call-back leaves the loop as a reactor exception
// and releases the reactor's lock.
TEST(CompletionPortReactor, PortFailureInACallBackLeavesTheLoop) {
  CompletionPortReactor reactor;
  Fds fds(1);
  Recorder h(reactor);
  h.onInput = [&](Overlapped*) {
    reactor.registerHandle(ACE_INVALID_HANDLE, 5);  // throws
  };
  reactor.registerHandler(fds.fds[0], &h);
  reactor.start();
  LogCapture log;
  try {
    reactor.handleEvents();
    ADD_FAILURE() << "no exception";
  } catch (const CompletionPortReactorException& e) {
    EXPECT_STREQ("Completion port error", e.what());
  }
  EXPECT_TRUE(Logged(log, LM_CRITICAL,
                     "CompletionPortReactor::handleEvents: "
                     "CompletionPortException: CompletionPort::"
                     "registerHandler error\n"));
  reactor.stop();
  // Another thread can take the lock again: registration gets as far as
  // the descriptor check.
  auto other = std::async(std::launch::async, [&] {
    try {
      reactor.registerHandler(ACE_INVALID_HANDLE, &h);
    } catch (const CompletionPortReactorException& e) {
      return std::string(e.what());
    }
    return std::string();
  });
  ASSERT_EQ(std::future_status::ready,
            other.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ("Unable to add transport", other.get());
}

TEST(CompletionPortReactor, RefusedDescriptorDoesNotUseUpAKey) {
  CompletionPortReactor reactor;
  Recorder h(reactor);
  Overlapped ov;
  h.onInput = [&](Overlapped* o) {
    if (o == nullptr)
      reactor.post(1, 0, &ov);
    else
      reactor.stop();
  };
  {
    LogCapture log;
    try {
      reactor.registerHandler(ACE_INVALID_HANDLE, &h);
      ADD_FAILURE() << "no exception";
    } catch (const CompletionPortReactorException& e) {
      EXPECT_STREQ("Unable to add transport", e.what());
    }
    EXPECT_TRUE(Logged(log, LM_CRITICAL,
                       "CompletionPortReactor::registerHandler: "
                       "CompletionPortException: CompletionPort::"
                       "registerHandler error\n"));
  }
  Fds fds(1);
  reactor.registerHandler(fds.fds[0], &h);
  reactor.start();
  reactor.handleEvents();
  ASSERT_EQ(2u, h.inputs.size());
  EXPECT_EQ(&ov, h.inputs[1].second);  // key 1 went to the first success
}

// A stop before start waits in the port; the loop then meets it while
// active, logs it as key -1 and keeps serving.
TEST(CompletionPortReactor, StopBeforeStartIsLost) {
  CompletionPortReactor reactor;
  Fds fds(1);
  Recorder h(reactor);
  Overlapped ov;
  h.onInput = [&](Overlapped* o) {
    if (o == &ov) reactor.stop();
  };
  reactor.registerHandler(fds.fds[0], &h);
  reactor.stop();
  reactor.post(1, 0, &ov);
  LogCapture log;
  reactor.start();
  reactor.handleEvents();
  ASSERT_EQ(2u, h.inputs.size());  // priming, then the packet after the stop
  EXPECT_EQ(&ov, h.inputs[1].second);
  EXPECT_TRUE(Logged(log, LM_WARNING,
                     "CompletionPortReactor::handleEvents: Received an "
                     "unknown completion key: -1.\n"));
}

TEST(CompletionPortReactor, HandleEventsReturnsAtOnceWhenStoppedBeforeWaking) {
  CompletionPortReactor reactor;
  reactor.start();
  reactor.stop();  // the started event stays signalled, active is false
  auto done = std::async(std::launch::async, [&] { reactor.handleEvents(); });
  EXPECT_EQ(std::future_status::ready, done.wait_for(std::chrono::seconds(10)));
}

TEST(CompletionPortReactor, StopFromAnotherThreadEndsTheLoop) {
  CompletionPortReactor reactor;
  Fds fds(1);
  Recorder h(reactor);
  std::atomic<bool> primed{false};
  h.onInput = [&](Overlapped*) { primed = true; };
  reactor.registerHandler(fds.fds[0], &h);
  auto loop = std::async(std::launch::async, [&] { reactor.handleEvents(); });
  reactor.start();
  ASSERT_TRUE(WaitFor([&] { return primed.load(); }));
  reactor.stop();
  ASSERT_EQ(std::future_status::ready, loop.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1u, h.inputs.size());
}

TEST(CompletionPortReactor, PostsFromEightThreadsAreDeliveredOnce) {
  CompletionPortReactor reactor(32);
  Fds fds(1);
  Recorder h(reactor);
  const int kThreads = 8, kEach = 2000;
  std::vector<Overlapped> records(kThreads * kEach);
  std::vector<int> seen(records.size());
  std::atomic<bool> go{false};
  size_t delivered = 0;
  h.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) {
      go = true;  // the loop runs: let the posters loose
      return;
    }
    ++seen[static_cast<size_t>(ov - &records[0])];
    if (++delivered == records.size()) reactor.stop();
  };
  reactor.registerHandler(fds.fds[0], &h);
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kEach; ++i)
        ASSERT_EQ(0, reactor.post(1, 0, &records[t * kEach + i]));
    });
  reactor.start();
  reactor.handleEvents();
  for (auto& p : posters) p.join();
  for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(1, seen[i]) << i;
}

TEST(CompletionPortReactor, ReadOfADescriptorClosedBehindItsBackFails) {
  CompletionPortReactor reactor;
  int p[2];
  ASSERT_EQ(0, pipe2(p, O_CLOEXEC));
  Recorder h(reactor);
  char buf[8];
  Overlapped ov;
  h.onInput = [&](Overlapped* o) {
    if (o == nullptr) {
      EXPECT_EQ(0, reactor.startRead(p[0], buf, 8, &ov));
    }
  };
  h.onException = [&](Overlapped*) { reactor.stop(); };
  reactor.registerHandler(p[0], &h);
  close(p[0]);
  reactor.start();
  reactor.handleEvents();
  ASSERT_EQ(1u, h.exceptions.size());
  EXPECT_EQ(p[0], h.exceptions[0].first);
  EXPECT_EQ(&ov, h.exceptions[0].second);
  EXPECT_EQ(-EBADF, ov.result);
  close(p[1]);
}

// A write started by a call-back that then stops the reactor is carried out
// although nobody listens afterwards.
TEST(CompletionPortReactor, LastStartedOperationIsIssuedAfterTheLoopEnds) {
  testsupport::TempFolder dir;
  std::string path = dir.Write("out", "");
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  CompletionPortReactor reactor;
  Recorder h(reactor);
  Overlapped ov;
  Overlapped wakeUp;
  h.onInput = [&](Overlapped* o) {
    if (o == nullptr) {  // priming: come back from inside the loop
      reactor.post(1, 0, &wakeUp);
      return;
    }
    EXPECT_EQ(0, reactor.startWrite(fd, "last words", 10, &ov));
    reactor.stop();
  };
  reactor.registerHandler(fd, &h);
  reactor.start();
  reactor.handleEvents();
  EXPECT_TRUE(WaitFor(
      [&] { return testsupport::TempFolder::Read(path) == "last words"; }));
  EXPECT_EQ(1ul, reactor.listen());  // its packet waits in the port
  close(fd);
}

// An echo server on loopback: one handler accepts, receives and sends back.
// Accepted connections complete under the listener's key (1) and are told
// apart by their records.
class EchoHandler : public ACE_Event_Handler {
 public:
  explicit EchoHandler(CompletionPortReactor& r) : reactor_(r) {}
  ~EchoHandler() override {
    for (auto& c : conns_) close(c.second->fd);
  }

  int handle_input(ACE_HANDLE listener) override {
    Overlapped* ov = reactor_.lastOverlapped();
    if (ov == nullptr || ov == &accept_) {
      if (ov == &accept_) Accepted(static_cast<int>(accept_.result));
      reactor_.startAccept(listener, &accept_);
      return 0;
    }
    Conn* c = static_cast<Conn*>(ov->user);
    if (ov == &c->recv) {
      if (c->recv.result == 0) {  // the client closed
        Drop(c);
        return 0;
      }
      c->sent = 0;
      c->pending = static_cast<size_t>(c->recv.result);
      reactor_.startSend(c->fd, c->buf, static_cast<ACE_UINT32>(c->pending),
                         &c->send);
    } else {
      c->sent += static_cast<size_t>(c->send.result);
      if (c->sent < c->pending)
        reactor_.startSend(c->fd, c->buf + c->sent,
                           static_cast<ACE_UINT32>(c->pending - c->sent),
                           &c->send);
      else
        reactor_.startRecv(c->fd, c->buf, sizeof c->buf, &c->recv);
    }
    return 0;
  }

  int handle_exception(ACE_HANDLE) override {
    Overlapped* ov = reactor_.lastOverlapped();
    if (ov == &accept_) return 0;
    Conn* c = static_cast<Conn*>(ov->user);
    errors_.push_back(static_cast<int>(-ov->result));
    failed_ = errors_.size();
    Drop(c);
    return 0;
  }

  std::atomic<size_t> accepted_{0}, closed_{0}, failed_{0};
  std::vector<int> errors_;  // read after the loop ends

 private:
  struct Conn {
    int fd;
    Overlapped recv, send;
    size_t pending = 0, sent = 0;
    char buf[16384];
  };
  void Accepted(int fd) {
    std::unique_ptr<Conn> c(new Conn);
    c->fd = fd;
    c->recv.user = c->send.user = c.get();
    reactor_.registerHandle(fd, 1);
    reactor_.startRecv(fd, c->buf, sizeof c->buf, &c->recv);
    conns_[c.get()] = std::move(c);
    ++accepted_;
  }
  void Drop(Conn* c) {
    close(c->fd);
    conns_.erase(c);
    ++closed_;
  }

  CompletionPortReactor& reactor_;
  Overlapped accept_;
  std::map<Conn*, std::unique_ptr<Conn>> conns_;
};

class CompletionPortEcho : public ::testing::Test {
 protected:
  void SetUp() override {
    listener_ = Listener(&port_);
    ASSERT_GE(listener_, 0);
    reactor_->registerHandler(listener_, &echo_);
    reactor_->start();
    loop_ =
        std::async(std::launch::async, [this] { reactor_->handleEvents(); });
  }
  void TearDown() override {
    reactor_->stop();
    EXPECT_EQ(std::future_status::ready,
              loop_.wait_for(std::chrono::seconds(10)));
    reactor_.reset();  // cancels what still runs while the buffers live
    close(listener_);
  }

  std::unique_ptr<CompletionPortReactor> reactor_{new CompletionPortReactor};
  EchoHandler echo_{*reactor_};
  int listener_ = -1, port_ = 0;
  std::future<void> loop_;
};

TEST_F(CompletionPortEcho, EchoesMessagesOfManySizesOnSeveralConnections) {
  const size_t sizes[] = {1, 64, 16384, 100000};
  std::vector<std::thread> clients;
  std::atomic<int> good{0};
  for (int c = 0; c < 4; ++c)
    clients.emplace_back([&, c] {
      int fd = Connect(port_);
      ASSERT_GE(fd, 0);
      for (size_t size : sizes) {
        std::string msg = testsupport::RandomBytes(size, c * 10 + 1);
        ASSERT_TRUE(SendAll(fd, msg));
        EXPECT_TRUE(msg == RecvExactly(fd, size)) << size;
      }
      close(fd);
      ++good;
    });
  for (auto& t : clients) t.join();
  EXPECT_EQ(4, good.load());
  EXPECT_TRUE(WaitFor([&] { return echo_.closed_ == 4; }));
  EXPECT_EQ(4u, echo_.accepted_.load());
  EXPECT_EQ(0u, echo_.failed_.load());
}

TEST_F(CompletionPortEcho, ConnectionResetByThePeerReachesHandleException) {
  int fd = Connect(port_);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(SendAll(fd, "ping"));
  ASSERT_EQ("ping", RecvExactly(fd, 4));  // the server's receive is pending
  linger hard = {1, 0};
  ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard));
  close(fd);  // sends a reset
  ASSERT_TRUE(WaitFor([&] { return echo_.failed_ == 1; }));
  reactor_->stop();
  ASSERT_EQ(std::future_status::ready,
            loop_.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(std::vector<int>{ECONNRESET}, echo_.errors_);
}

}  // namespace
