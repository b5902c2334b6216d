#include "common/completionport/completionport.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <memory>
#include <netinet/in.h>
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
#include "support/waitfor.h"

namespace {

using Overlapped = CompletionPort::Overlapped;
using testsupport::LogCapture;
using testsupport::Logged;
using testsupport::Thrown;
using testsupport::WaitFor;

// A TCP socket on 127.0.0.1: listening on a free port (stored in *port)
// when *port is 0, else connected to *port.
int Loopback(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(*port));
  socklen_t len = sizeof a;
  sockaddr* sa = reinterpret_cast<sockaddr*>(&a);
  if (*port != 0) return connect(fd, sa, len) == 0 ? fd : (close(fd), -1);
  if (bind(fd, sa, len) != 0 || ::listen(fd, 64) != 0 ||
      getsockname(fd, sa, &len) != 0) {
    close(fd);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return fd;
}

// ------------------------------------------------------------ the port

TEST(CompletionPort, RingSizes) {
  EXPECT_EQ("Error creating IO completion port",
            Thrown<CompletionPortException>([] { CompletionPort port(0); }));
  EXPECT_STREQ("", CompletionPortException(nullptr).what());
  for (unsigned entries : {3u, 1u << 31}) {  // rounded, held to the limit
    SCOPED_TRACE(entries);
    CompletionPort port(entries);
    int fd = eventfd(1, EFD_CLOEXEC);  // readable
    port.registerHandle(fd, 2);
    Overlapped ov[3];
    for (Overlapped& o : ov) ASSERT_EQ(0, port.startPoll(fd, POLLIN, &o));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(2ul, port.listen());
    EXPECT_EQ(POLLIN, ov[2].result);
    EXPECT_EQ(0u, port.lastBytes());
    close(fd);
  }
}

TEST(CompletionPort, RefusesBadDescriptorsAndRecords) {
  CompletionPort port, other;
  int fd = eventfd(0, EFD_CLOEXEC);
  int closed = eventfd(0, EFD_CLOEXEC);
  close(closed);
  for (ACE_HANDLE h : {ACE_INVALID_HANDLE, closed}) {
    SCOPED_TRACE(h);
    LogCapture log;
    EXPECT_EQ(
        "CompletionPort::registerHandler error",
        Thrown<CompletionPortException>([&] { port.registerHandle(h, 1); }));
    EXPECT_TRUE(Logged(log, LM_CRITICAL,
                       "CompletionPort::registerHandle: Problem registering "
                       "completion port handle: OS Error Bad file "
                       "descriptor.\n"));
  }
  other.registerHandle(fd, 1);
  char buf[8];
  Overlapped ov;
  const std::function<int(Overlapped*)> calls[] = {
      [&](Overlapped* o) { return port.startRead(fd, buf, 8, o); },
      [&](Overlapped* o) { return port.startWrite(fd, buf, 8, o); },
      [&](Overlapped* o) { return port.startRecv(fd, buf, 8, o); },
      [&](Overlapped* o) { return port.startSend(fd, buf, 8, o); },
      [&](Overlapped* o) { return port.startAccept(fd, o); },
      [&](Overlapped* o) { return port.startPoll(fd, POLLIN, o); },
  };
  // Not registered here, then registered but without a record.
  for (int error : {EBADF, EINVAL}) {
    if (error == EINVAL) port.registerHandle(fd, 1);
    for (size_t i = 0; i < 6; ++i) {
      SCOPED_TRACE(i);
      errno = 0;
      EXPECT_EQ(-1, calls[i](error == EBADF ? &ov : nullptr));
      EXPECT_EQ(error, errno);
    }
  }
  close(fd);
}

// Reads and writes at offsets against a model of the file (short reads,
// holes).
TEST(CompletionPort, FileReadsAndWritesAtOffsets) {
  testsupport::TempFolder dir;
  std::string model = testsupport::RandomBytes(1 << 20, 7);
  const std::string path = dir.Write("data.bin", model);
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  CompletionPort port;
  port.registerHandle(fd, 42);
  const size_t size = model.size();
  const struct {
    bool write;
    ACE_UINT64 offset;
    ACE_UINT32 length;
    size_t expected;  // bytes done
  } rows[] = {
      {false, size - 5, 100, 5},     {false, size + 10, 10, 0},
      {true, 100000, 65536, 65536},  {true, size + 4096, 20, 20},
      {false, size - 8, 4200, 4124}, {false, 99999, 65538, 65538},
  };
  uint32_t seed = 100;
  for (const auto& r : rows) {
    SCOPED_TRACE(r.offset);
    std::string buf = r.write ? testsupport::RandomBytes(r.length, seed++)
                              : std::string(r.length, '\0');
    Overlapped ov;
    ov.offset = r.offset;
    ASSERT_EQ(0, r.write ? port.startWrite(fd, buf.data(), r.length, &ov)
                         : port.startRead(fd, &buf[0], r.length, &ov));
    EXPECT_EQ(42ul, port.listen());
    EXPECT_EQ(1, port.GetAsyncIOStatus());
    EXPECT_EQ(r.expected, port.lastBytes());
    EXPECT_EQ(static_cast<ACE_INT64>(r.expected), ov.result);
    if (r.write) {
      if (model.size() < r.offset + r.length)
        model.resize(r.offset + r.length, '\0');
      model.replace(r.offset, r.length, buf);
    } else {
      EXPECT_TRUE(model.substr(std::min<size_t>(r.offset, model.size()),
                               r.expected) == buf.substr(0, r.expected));
    }
  }
  EXPECT_TRUE(model == testsupport::TempFolder::Read(path));
  close(fd);
}

TEST(CompletionPort, FailedOperationsAndPostedPackets) {
  testsupport::TempFolder dir;
  std::string path = dir.Write("f", "some bytes");
  int readOnly = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int sv[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
  CompletionPort port;
  for (int fd : {readOnly, sv[0]}) port.registerHandle(fd, fd);
  char buf[16] = "data";
  const struct {
    std::function<int(Overlapped*)> start;
    int fd;
    int error;
  } rows[] = {
      {[&](Overlapped* o) { return port.startWrite(readOnly, buf, 4, o); },
       readOnly, EBADF},
      {[&](Overlapped* o) { return port.startRecv(readOnly, buf, 4, o); },
       readOnly, ENOTSOCK},
      {[&](Overlapped* o) { return port.startAccept(sv[0], o); }, sv[0],
       EINVAL},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.error);
    LogCapture log;
    Overlapped ov;
    ASSERT_EQ(0, r.start(&ov));
    EXPECT_EQ(static_cast<unsigned long>(r.fd), port.listen());
    EXPECT_EQ(0, port.GetAsyncIOStatus());
    EXPECT_EQ(r.error, errno);
    EXPECT_EQ(-r.error, ov.result);
    EXPECT_TRUE(Logged(log, LM_ERROR,
                       "CompletionPort::listen(): GetQueuedCompletionStatus "
                       "returned false. Error Code: " +
                           std::to_string(r.error) + "\n"));
  }
  Overlapped a, b;
  a.result = 77;
  ASSERT_EQ(0, port.post(5, 1234, &a));
  ASSERT_EQ(0, port.post(6, 0, nullptr));  // consumed, never returned
  ASSERT_EQ(0, port.post(0xFFFFFFFFul, 1, &b));
  EXPECT_EQ(5ul, port.listen());  // status back to 1, all as given
  EXPECT_EQ(1, port.GetAsyncIOStatus());
  EXPECT_EQ(1234u, port.lastBytes());
  EXPECT_EQ(77, a.result);
  EXPECT_EQ(0xFFFFFFFFul, port.listen());
  EXPECT_EQ(&b, port.lastOverlapped());
  for (int fd : {readOnly, sv[0], sv[1]}) close(fd);
}

// Four threads start reads, polls and posts on a two-entry ring, half before
// anyone listens; every packet arrives once, under its key, with its bytes.
TEST(CompletionPort, ThreadsStartWhileOneListensAndTheRingFills) {
  testsupport::TempFolder dir;
  const int kThreads = 4, kRounds = 200;
  const std::string content =
      testsupport::RandomBytes(kThreads * kRounds * 16, 9);
  const std::string path = dir.Write("f", content);
  CompletionPort port(2);
  struct Round {
    Overlapped read, poll, post;
    char buf[16];
    int seen[3] = {};  // packets back, by the listener
  };
  std::vector<Round> rounds(kThreads * kRounds);
  std::atomic<int> wrong{0}, halfway{0};
  std::atomic<int> done[kThreads] = {};  // packets back, per thread
  std::thread listener([&] {
    if (!WaitFor([&] { return halfway == kThreads; })) ++wrong;
    for (int n = 0; n < kThreads * kRounds * 3; ++n) {
      unsigned long key = port.listen();
      Overlapped* ov = port.lastOverlapped();
      Round* r = static_cast<Round*>(ov->user);
      size_t k = static_cast<size_t>(r - &rounds[0]);
      int kind = ov == &r->read ? 0 : ov == &r->poll ? 1 : 2;
      ACE_UINT32 bytes[] = {16, 0, static_cast<ACE_UINT32>(k % kRounds)};
      if (port.GetAsyncIOStatus() != 1 || port.lastBytes() != bytes[kind] ||
          key != 10 * (kind + 1) + k / kRounds || ++r->seen[kind] != 1 ||
          (kind == 0 && (r->read.result != 16 ||
                         content.compare(k * 16, 16, r->buf, 16) != 0)) ||
          (kind == 1 && !(r->poll.result & POLLIN)))
        ++wrong;
      ++done[k / kRounds];
    }
  });
  std::vector<std::thread> starters;
  for (int t = 0; t < kThreads; ++t)
    starters.emplace_back([&, t] {
      int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      int ev = eventfd(1, EFD_CLOEXEC);  // always readable
      port.registerHandle(file, 10 + t);
      port.registerHandle(ev, 20 + t);
      for (int i = 0; i < kRounds; ++i) {
        if (i == kRounds / 2) ++halfway;
        size_t k = static_cast<size_t>(t * kRounds + i);
        Round& r = rounds[k];
        r.read.user = r.poll.user = r.post.user = &r;
        r.read.offset = k * 16;
        if (port.startRead(file, r.buf, 16, &r.read) != 0 ||
            port.startPoll(ev, POLLIN, &r.poll) != 0 ||
            port.post(30 + t, static_cast<ACE_UINT32>(i), &r.post) != 0)
          ++wrong;
      }
      if (!WaitFor([&] { return done[t] == 3 * kRounds; })) ++wrong;
      close(file);
      close(ev);
    });
  for (auto& s : starters) s.join();
  listener.join();
  EXPECT_EQ(0, wrong.load());
}

// The port's own thread submits: the starter's timed receive is not
// interrupted, and its receive outlives it.
TEST(CompletionPort, OperationsDoNotDependOnTheStartingThread) {
  int a[2], b[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, a));
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, b));
  CompletionPort port;
  port.registerHandle(a[0], 1);
  char buf[16] = {}, late[16] = {};
  Overlapped ov, lateOv;
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
    EXPECT_EQ(0, port.startRecv(a[0], late, 16, &lateOv));
  });
  ASSERT_TRUE(WaitFor([&] { return blocking.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(3, send(a[1], "abc", 3, 0));  // completes during the timed call
  EXPECT_EQ(1ul, port.listen());
  EXPECT_EQ(3, ov.result);
  starter.join();
  EXPECT_EQ(EAGAIN, timedErrno) << strerror(timedErrno);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(5, send(a[1], "hello", 5, 0));
  EXPECT_EQ(1ul, port.listen());
  EXPECT_EQ(&lateOv, port.lastOverlapped());
  EXPECT_EQ("hello", std::string(late, 5));
  for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
}

// ------------------------------------------------------------ the reactor

struct Recorder : ACE_Event_Handler {
  explicit Recorder(CompletionPortReactor& r) : reactor(r) {}
  int handle_input(ACE_HANDLE h) override {
    inputs.push_back({h, reactor.lastOverlapped()});
    if (onInput) onInput(reactor.lastOverlapped());
    return 0;
  }
  CompletionPortReactor& reactor;
  std::vector<std::pair<ACE_HANDLE, Overlapped*>> inputs;
  std::function<void(Overlapped*)> onInput;
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

// Keys 1, 2, 3 in registration order (a refused descriptor uses none),
// priming in that order, unknown keys (a stop() before start()) logged.
TEST(CompletionPortReactor, KeysPrimingUnknownKeysAndRegistration) {
  CompletionPortReactor reactor;
  Fds fds(3);
  Recorder h1(reactor), h2(reactor), h3(reactor);
  LogCapture log;
  EXPECT_EQ("Unable to add transport",
            Thrown<CompletionPortReactorException>(
                [&] { reactor.registerHandler(ACE_INVALID_HANDLE, &h1); }));
  EXPECT_TRUE(Logged(log, LM_CRITICAL,
                     "CompletionPortReactor::registerHandler: "
                     "CompletionPortException: CompletionPort::"
                     "registerHandler error\n"));
  std::vector<int> primed;
  Overlapped toKey1, toKey2, unknown4, unknown99, last;
  std::string lateError;
  Recorder* hs[] = {&h1, &h2, &h3};
  for (int i = 0; i < 3; ++i) {
    hs[i]->onInput = [&, i](Overlapped* ov) {
      if (ov == nullptr) primed.push_back(i + 1);
    };
    reactor.registerHandler(fds.fds[i], hs[i]);
  }
  h3.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) {
      primed.push_back(3);
      lateError = Thrown<CompletionPortReactorException>(
          [&] { reactor.registerHandler(fds.fds[0], &h1); });
      for (auto p : {std::make_pair(2, &toKey2), std::make_pair(99, &unknown99),
                     std::make_pair(4, &unknown4), std::make_pair(1, &toKey1),
                     std::make_pair(3, &last)})
        reactor.post(p.first, 0, p.second);
    } else if (ov == &last) {
      reactor.stop();
    }
  };
  reactor.stop();  // lost
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
  for (int key : {99, 4, -1})
    EXPECT_TRUE(Logged(log, LM_WARNING,
                       "CompletionPortReactor::handleEvents: Received an "
                       "unknown completion key: " +
                           std::to_string(key) + ".\n"))
        << key;
}

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
  EXPECT_EQ("Completion port error", Thrown<CompletionPortReactorException>(
                                         [&] { reactor.handleEvents(); }));
  EXPECT_TRUE(Logged(log, LM_CRITICAL,
                     "CompletionPortReactor::handleEvents: "
                     "CompletionPortException: CompletionPort::"
                     "registerHandler error\n"));
  reactor.stop();
  // The lock was released: another thread gets to the descriptor check.
  auto other = std::async(std::launch::async, [&] {
    return Thrown<CompletionPortReactorException>(
        [&] { reactor.registerHandler(ACE_INVALID_HANDLE, &h); });
  });
  ASSERT_EQ(std::future_status::ready,
            other.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ("Unable to add transport", other.get());
}

TEST(CompletionPortReactor, PostsFromEightThreadsAndStopFromAnother) {
  CompletionPortReactor reactor(32);
  Fds fds(1);
  Recorder h(reactor);
  const int kThreads = 8, kEach = 1000;
  std::vector<Overlapped> records(kThreads * kEach);
  std::vector<int> seen(records.size());
  std::atomic<bool> go{false};
  std::atomic<size_t> delivered{0};
  h.onInput = [&](Overlapped* ov) {
    if (ov == nullptr) {
      go = true;  // the loop runs: let the posters loose
      return;
    }
    ++seen[static_cast<size_t>(ov - &records[0])];
    ++delivered;
  };
  reactor.registerHandler(fds.fds[0], &h);
  auto loop = std::async(std::launch::async, [&] { reactor.handleEvents(); });
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kEach; ++i)
        ASSERT_EQ(0, reactor.post(1, 0, &records[t * kEach + i]));
    });
  reactor.start();
  for (auto& p : posters) p.join();
  EXPECT_TRUE(WaitFor([&] { return delivered == records.size(); }));
  reactor.stop();
  ASSERT_EQ(std::future_status::ready, loop.wait_for(std::chrono::seconds(10)));
  for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(1, seen[i]) << i;
}

TEST(CompletionPortReactor, LastStartedOperationIsIssuedAfterTheLoopEnds) {
  testsupport::TempFolder dir;
  std::string path = dir.Write("out", "");
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  CompletionPortReactor reactor;
  Recorder h(reactor);
  Overlapped ov, wakeUp;
  h.onInput = [&](Overlapped* o) {
    if (o == nullptr) {  // priming: come back from inside the loop
      reactor.post(1, 0, &wakeUp);
      return;
    }
    EXPECT_EQ(0, reactor.startWrite(fd, "last words", 10, &ov));
    reactor.stop();
  };
  reactor.registerHandler(fd, &h);
  // Lets the submitter go idle (correct code passes either way).
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  reactor.start();
  reactor.handleEvents();
  EXPECT_TRUE(WaitFor(
      [&] { return testsupport::TempFolder::Read(path) == "last words"; }));
  EXPECT_EQ(1ul, reactor.listen());  // its packet waits in the port
  close(fd);
}

// Echoes on loopback; connections share the listener's key, told apart by
// their records.
class EchoHandler : public ACE_Event_Handler {
 public:
  explicit EchoHandler(CompletionPortReactor& r) : reactor_(r) {}
  ~EchoHandler() override {
    for (auto& c : conns_)
      if (c->fd >= 0) close(c->fd);
  }

  int handle_input(ACE_HANDLE listener) override {
    Overlapped* ov = reactor_.lastOverlapped();
    if (ov == nullptr || ov == &accept_) {
      if (ov == &accept_) {
        conns_.emplace_back(new Conn);
        Conn* c = conns_.back().get();
        c->fd = static_cast<int>(accept_.result);
        c->recv.user = c->send.user = c;
        reactor_.registerHandle(c->fd, 1);
        reactor_.startRecv(c->fd, c->buf, sizeof c->buf, &c->recv);
      }
      reactor_.startAccept(listener, &accept_);
      return 0;
    }
    Conn* c = static_cast<Conn*>(ov->user);
    if (ov == &c->recv) {
      if (c->recv.result == 0) return Drop(c);  // the client closed
      c->sent = 0;
      c->pending = static_cast<size_t>(c->recv.result);
    } else {
      c->sent += static_cast<size_t>(c->send.result);
    }
    if (c->sent < c->pending)
      reactor_.startSend(c->fd, c->buf + c->sent,
                         static_cast<ACE_UINT32>(c->pending - c->sent),
                         &c->send);
    else
      reactor_.startRecv(c->fd, c->buf, sizeof c->buf, &c->recv);
    return 0;
  }

  int handle_exception(ACE_HANDLE) override {
    Overlapped* ov = reactor_.lastOverlapped();
    if (ov == &accept_) return 0;
    errors_.push_back(static_cast<int>(-ov->result));
    failed_ = errors_.size();
    return Drop(static_cast<Conn*>(ov->user));
  }

  std::atomic<size_t> closed_{0}, failed_{0};
  std::vector<int> errors_;  // read after the loop ends

 private:
  struct Conn {
    int fd;
    Overlapped recv, send;
    size_t pending = 0, sent = 0;
    char buf[16384];
  };
  int Drop(Conn* c) {
    close(c->fd);
    c->fd = -1;
    ++closed_;
    return 0;
  }

  CompletionPortReactor& reactor_;
  Overlapped accept_;
  std::vector<std::unique_ptr<Conn>> conns_;
};

std::string RoundTrip(int fd, const std::string& msg) {
  std::string back(msg.size(), '\0');
  if (send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(msg.size()))
    return "send failed";
  ssize_t n = recv(fd, &back[0], back.size(), MSG_WAITALL);
  back.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return back;
}

// A reset reaches handle_exception with its error.
TEST(CompletionPortReactor, EchoServerOnLoopback) {
  int port = 0, listener = Loopback(&port);
  ASSERT_GE(listener, 0);
  std::unique_ptr<CompletionPortReactor> reactor(new CompletionPortReactor);
  EchoHandler echo(*reactor);
  reactor->registerHandler(listener, &echo);
  reactor->start();
  auto loop = std::async(std::launch::async, [&] { reactor->handleEvents(); });
  std::vector<std::thread> clients;
  for (int c = 0; c < 2; ++c)
    clients.emplace_back([&, c] {
      int to = port, fd = Loopback(&to);
      for (size_t size : {1, 100000}) {
        std::string msg = testsupport::RandomBytes(size, c * 10 + 1);
        EXPECT_TRUE(msg == RoundTrip(fd, msg)) << size;
      }
      close(fd);
    });
  for (auto& t : clients) t.join();
  EXPECT_TRUE(WaitFor([&] { return echo.closed_ == 2; }));
  EXPECT_EQ(0u, echo.failed_.load());

  int to = port, fd = Loopback(&to);
  EXPECT_EQ("ping", RoundTrip(fd, "ping"));  // the server's receive waits
  linger hard = {1, 0};
  EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard));
  close(fd);  // sends a reset
  EXPECT_TRUE(WaitFor([&] { return echo.failed_ == 1; }));
  reactor->stop();
  ASSERT_EQ(std::future_status::ready, loop.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(std::vector<int>{ECONNRESET}, echo.errors_);
  reactor.reset();  // cancels what still runs while the buffers live
  close(listener);
}

}  // namespace
