// The completion port beside its peers:
//  - fileread: a 256 MiB file (generated once per run under $TMPDIR or /tmp)
//    read in 64 KiB blocks at queue depth 16, page cache warm and with
//    O_DIRECT, against raw liburing written plainly (one thread submits and
//    reaps, resubmitting after each completion) and a pread(2) loop;
//  - echo: a loopback echo server, 1 and 64 connections, 64-byte and
//    16 KiB messages, the reactor against a boost::asio server and a plain
//    epoll server; one client thread sends a message on every connection,
//    then reads every echo back, per iteration;
//  - post: posted packets per second through handleEvents (batches of
//    1024 from one thread, dispatched on the loop's thread), against raw
//    liburing no-op entries submitted and reaped by one thread;
//  - postlisten: one packet posted and listened for on the same thread,
//    against one raw no-op entry submitted and reaped;
//  - handoff: one 4 KiB read of the warm file started and listened for on
//    the same thread, the cost of going through the port's submitting
//    thread, against the same read submitted and reaped by raw liburing.
#include <arpa/inet.h>
#include <atomic>
#include <boost/asio.hpp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <liburing.h>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/completionport/completionport.h"

namespace {

using Overlapped = CompletionPort::Overlapped;

constexpr size_t kFileBytes = size_t{256} << 20;
constexpr unsigned kBlock = 64 * 1024;
constexpr int kDepth = 16;

// ------------------------------------------------------------ file reads

const std::string& DataFile() {
  static const std::string* path = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string* p = new std::string(std::string(tmp && *tmp ? tmp : "/tmp") +
                                     "/completionport-bench-XXXXXX");
    int fd = mkstemp(&(*p)[0]);
    if (fd < 0) std::abort();
    std::vector<char> block(kBlock);
    unsigned seed = 1;
    for (size_t done = 0; done < kFileBytes; done += kBlock) {
      for (char& c : block)
        c = static_cast<char>(seed = seed * 1103515245 + 12345);
      if (write(fd, block.data(), kBlock) != static_cast<ssize_t>(kBlock))
        std::abort();
    }
    fsync(fd);
    close(fd);
    std::atexit([] { unlink(DataFile().c_str()); });
    return p;
  }();
  return *path;
}

struct Buffers {
  Buffers() {
    for (auto& b : blocks)
      b = static_cast<char*>(std::aligned_alloc(4096, kBlock));
  }
  ~Buffers() {
    for (auto& b : blocks) std::free(b);
  }
  char* blocks[kDepth];
};

int OpenData(benchmark::State& state, bool direct) {
  int fd = open(DataFile().c_str(), O_RDONLY | (direct ? O_DIRECT : 0));
  if (fd < 0) state.SkipWithError("cannot open the file (O_DIRECT?)");
  return fd;
}

void Finish(benchmark::State& state, bool ok) {
  if (!ok) state.SkipWithError("short or failed read");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kFileBytes));
}

void FileReadCom(benchmark::State& state, bool direct) {
  int fd = OpenData(state, direct);
  if (fd < 0) return;
  CompletionPort port(64);
  port.registerHandle(fd, 1);
  Buffers buf;
  Overlapped ov[kDepth];
  bool ok = true;
  for (auto _ : state) {
    size_t next = 0;
    int running = 0;
    for (int i = 0; i < kDepth && next < kFileBytes; ++i, next += kBlock) {
      ov[i].offset = next;
      ov[i].user = buf.blocks[i];
      port.startRead(fd, buf.blocks[i], kBlock, &ov[i]);
      ++running;
    }
    while (running > 0) {
      port.listen();
      Overlapped* done = port.lastOverlapped();
      ok &= port.lastBytes() == kBlock;
      --running;
      if (next < kFileBytes) {
        done->offset = next;
        next += kBlock;
        port.startRead(fd, done->user, kBlock, done);
        ++running;
      }
    }
  }
  close(fd);
  Finish(state, ok);
}

void FileReadLiburing(benchmark::State& state, bool direct) {
  int fd = OpenData(state, direct);
  if (fd < 0) return;
  io_uring ring;
  io_uring_queue_init(64, &ring, 0);
  Buffers buf;
  bool ok = true;
  for (auto _ : state) {
    size_t next = 0;
    int running = 0;
    for (int i = 0; i < kDepth && next < kFileBytes; ++i, next += kBlock) {
      io_uring_sqe* sqe = io_uring_get_sqe(&ring);
      io_uring_prep_read(sqe, fd, buf.blocks[i], kBlock, next);
      io_uring_sqe_set_data(sqe, buf.blocks[i]);
      ++running;
    }
    io_uring_submit(&ring);
    while (running > 0) {
      io_uring_cqe* cqe;
      io_uring_wait_cqe(&ring, &cqe);
      void* block = io_uring_cqe_get_data(cqe);
      ok &= cqe->res == static_cast<int>(kBlock);
      io_uring_cqe_seen(&ring, cqe);
      --running;
      if (next < kFileBytes) {
        io_uring_sqe* sqe = io_uring_get_sqe(&ring);
        io_uring_prep_read(sqe, fd, block, kBlock, next);
        io_uring_sqe_set_data(sqe, block);
        io_uring_submit(&ring);
        next += kBlock;
        ++running;
      }
    }
  }
  io_uring_queue_exit(&ring);
  close(fd);
  Finish(state, ok);
}

void FileReadPread(benchmark::State& state, bool direct) {
  int fd = OpenData(state, direct);
  if (fd < 0) return;
  Buffers buf;
  bool ok = true;
  for (auto _ : state) {
    for (size_t off = 0; off < kFileBytes; off += kBlock)
      ok &= pread(fd, buf.blocks[0], kBlock, static_cast<off_t>(off)) ==
            static_cast<ssize_t>(kBlock);
  }
  close(fd);
  Finish(state, ok);
}

// ------------------------------------------------------------ echo servers

constexpr size_t kEchoBuffer = 16384;

void NoDelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

int ListenLoopback(int* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 ||
      listen(fd, 128) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
    std::abort();
  *port = ntohs(a.sin_port);
  return fd;
}

class Server {
 public:
  virtual ~Server() {}
  virtual int port() const = 0;
};

// The reactor: one handler for the listener; accepted connections complete
// under its key and are told apart by their records.
class ComServer : public Server, public ACE_Event_Handler {
 public:
  ComServer() {
    listener_ = ListenLoopback(&port_);
    reactor_.registerHandler(listener_, this);  // key 1
    reactor_.start();
    loop_ = std::thread([this] { reactor_.handleEvents(); });
  }
  ~ComServer() override {
    reactor_.stop();
    loop_.join();
    for (auto& c : conns_) close(c.first->fd);
    close(listener_);
  }
  int port() const override { return port_; }

  int handle_input(ACE_HANDLE listener) override {
    Overlapped* ov = reactor_.lastOverlapped();
    if (ov == nullptr || ov == &accept_) {
      if (ov == &accept_) {
        std::unique_ptr<Conn> c(new Conn);
        c->fd = static_cast<int>(accept_.result);
        NoDelay(c->fd);
        c->recv.user = c->send.user = c.get();
        reactor_.registerHandle(c->fd, 1);
        reactor_.startRecv(c->fd, c->buf, kEchoBuffer, &c->recv);
        Conn* raw = c.get();
        conns_[raw] = std::move(c);
      }
      reactor_.startAccept(listener, &accept_);
      return 0;
    }
    Conn* c = static_cast<Conn*>(ov->user);
    if (ov == &c->recv) {
      if (c->recv.result == 0) return 0;
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
        reactor_.startRecv(c->fd, c->buf, kEchoBuffer, &c->recv);
    }
    return 0;
  }
  int handle_exception(ACE_HANDLE) override { return 0; }

 private:
  struct Conn {
    int fd;
    Overlapped recv, send;
    size_t pending = 0, sent = 0;
    char buf[kEchoBuffer];
  };
  CompletionPortReactor reactor_;
  Overlapped accept_;
  int listener_, port_;
  std::map<Conn*, std::unique_ptr<Conn>> conns_;
  std::thread loop_;
};

class AsioServer : public Server {
 public:
  AsioServer()
      : acceptor_(io_, boost::asio::ip::tcp::endpoint(
                           boost::asio::ip::address_v4::loopback(), 0)) {
    Accept();
    loop_ = std::thread([this] { io_.run(); });
  }
  ~AsioServer() override {
    io_.stop();
    loop_.join();
  }
  int port() const override { return acceptor_.local_endpoint().port(); }

 private:
  struct Session : std::enable_shared_from_this<Session> {
    explicit Session(boost::asio::ip::tcp::socket s) : sock(std::move(s)) {}
    void Read() {
      auto self = shared_from_this();
      sock.async_read_some(boost::asio::buffer(buf),
                           [self](boost::system::error_code ec, size_t n) {
                             if (!ec) self->Write(n);
                           });
    }
    void Write(size_t n) {
      auto self = shared_from_this();
      boost::asio::async_write(sock, boost::asio::buffer(buf, n),
                               [self](boost::system::error_code ec, size_t) {
                                 if (!ec) self->Read();
                               });
    }
    boost::asio::ip::tcp::socket sock;
    char buf[kEchoBuffer];
  };
  void Accept() {
    acceptor_.async_accept(
        [this](boost::system::error_code ec, boost::asio::ip::tcp::socket s) {
          if (ec) return;
          s.set_option(boost::asio::ip::tcp::no_delay(true));
          std::make_shared<Session>(std::move(s))->Read();
          Accept();
        });
  }
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  std::thread loop_;
};

class EpollServer : public Server {
 public:
  EpollServer() {
    listener_ = ListenLoopback(&port_);
    stop_ = eventfd(0, EFD_CLOEXEC);
    ep_ = epoll_create1(EPOLL_CLOEXEC);
    Watch(listener_);
    Watch(stop_);
    loop_ = std::thread([this] { Run(); });
  }
  ~EpollServer() override {
    uint64_t one = 1;
    if (write(stop_, &one, 8) != 8) std::abort();
    loop_.join();
    for (auto& c : bufs_) close(c.first);
    close(ep_);
    close(stop_);
    close(listener_);
  }
  int port() const override { return port_; }

 private:
  void Watch(int fd) {
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
  }
  void Run() {
    epoll_event events[64];
    for (;;) {
      int n = epoll_wait(ep_, events, 64, -1);
      for (int i = 0; i < n; ++i) {
        int fd = events[i].data.fd;
        if (fd == stop_) return;
        if (fd == listener_) {
          int c = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
          if (c < 0) continue;
          NoDelay(c);
          bufs_[c].reset(new char[kEchoBuffer]);
          Watch(c);
          continue;
        }
        char* buf = bufs_[fd].get();
        ssize_t got = recv(fd, buf, kEchoBuffer, 0);
        if (got <= 0) {
          epoll_ctl(ep_, EPOLL_CTL_DEL, fd, nullptr);
          continue;
        }
        for (ssize_t sent = 0; sent < got;) {
          ssize_t k = send(fd, buf + sent, static_cast<size_t>(got - sent),
                           MSG_NOSIGNAL);
          if (k <= 0) break;
          sent += k;
        }
      }
    }
  }
  int listener_, port_, stop_, ep_;
  std::map<int, std::unique_ptr<char[]>> bufs_;
  std::thread loop_;
};

template <class S>
void Echo(benchmark::State& state, int connections, size_t size) {
  S server;
  std::vector<int> fds;
  for (int i = 0; i < connections; ++i) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(server.port()));
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
      std::abort();
    NoDelay(fd);
    fds.push_back(fd);
  }
  std::string msg(size, 'x'), back(size, '\0');
  bool ok = true;
  rusage before, after;
  getrusage(RUSAGE_SELF, &before);
  for (auto _ : state) {
    for (int fd : fds)
      ok &= send(fd, msg.data(), size, MSG_NOSIGNAL) ==
            static_cast<ssize_t>(size);
    for (int fd : fds) {
      for (size_t got = 0; got < size;) {
        ssize_t n = recv(fd, &back[got], size - got, 0);
        if (n <= 0) {
          ok = false;
          break;
        }
        got += static_cast<size_t>(n);
      }
    }
  }
  getrusage(RUSAGE_SELF, &after);
  for (int fd : fds) close(fd);
  if (!ok) state.SkipWithError("echo failed");
  // Context switches of the whole process (client and server) per echoed
  // message: a figure the machine's load does not blur.
  const double switches =
      static_cast<double>((after.ru_nvcsw - before.ru_nvcsw) +
                          (after.ru_nivcsw - before.ru_nivcsw));
  state.counters["switches_per_msg"] =
      switches / static_cast<double>(state.iterations() * connections);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          connections * static_cast<int64_t>(size));
}

// ------------------------------------------------------------ packets

constexpr int kBatch = 1024;

// Counts packets on the loop's thread and raises `done` at each batch's
// last one, so the poster does not share a hot counter with the loop.
struct Counter : ACE_Event_Handler {
  int handle_input(ACE_HANDLE) override {
    ++count;
    if (reactor->lastOverlapped() == &last)
      done.store(true, std::memory_order_release);
    return 0;
  }
  CompletionPortReactor* reactor = nullptr;
  Overlapped last;
  long count = 0;
  std::atomic<bool> done{false};
};

void PostCom(benchmark::State& state) {
  CompletionPortReactor reactor(512);
  Counter counter;
  counter.reactor = &reactor;
  int fd = eventfd(0, EFD_CLOEXEC);
  reactor.registerHandler(fd, &counter);
  reactor.start();
  std::thread loop([&] { reactor.handleEvents(); });
  Overlapped ov;
  for (auto _ : state) {
    counter.done.store(false, std::memory_order_relaxed);
    for (int i = 1; i < kBatch; ++i) reactor.post(1, 0, &ov);
    reactor.post(1, 0, &counter.last);
    while (!counter.done.load(std::memory_order_acquire))
      std::this_thread::yield();
  }
  reactor.stop();
  loop.join();
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

void PostLiburing(benchmark::State& state) {
  io_uring ring;
  io_uring_queue_init(512, &ring, 0);
  long count = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      io_uring_sqe* sqe = io_uring_get_sqe(&ring);
      if (sqe == nullptr) {
        io_uring_submit(&ring);
        sqe = io_uring_get_sqe(&ring);
      }
      io_uring_prep_nop(sqe);
    }
    io_uring_submit(&ring);
    for (int i = 0; i < kBatch; ++i) {
      io_uring_cqe* cqe;
      io_uring_wait_cqe(&ring, &cqe);
      io_uring_cqe_seen(&ring, cqe);
      ++count;
    }
  }
  benchmark::DoNotOptimize(count);
  io_uring_queue_exit(&ring);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

void PostListenCom(benchmark::State& state) {
  CompletionPort port;
  Overlapped ov;
  for (auto _ : state) {
    port.post(1, 0, &ov);
    benchmark::DoNotOptimize(port.listen());
  }
}

void PostListenLiburing(benchmark::State& state) {
  io_uring ring;
  io_uring_queue_init(8, &ring, 0);
  for (auto _ : state) {
    io_uring_prep_nop(io_uring_get_sqe(&ring));
    io_uring_submit(&ring);
    io_uring_cqe* cqe;
    io_uring_wait_cqe(&ring, &cqe);
    io_uring_cqe_seen(&ring, cqe);
  }
  io_uring_queue_exit(&ring);
}

void HandoffCom(benchmark::State& state) {
  int fd = OpenData(state, false);
  if (fd < 0) return;
  CompletionPort port;
  port.registerHandle(fd, 1);
  Buffers buf;
  Overlapped ov;
  bool ok = true;
  for (auto _ : state) {
    port.startRead(fd, buf.blocks[0], 4096, &ov);
    port.listen();
    ok &= ov.result == 4096;
  }
  close(fd);
  if (!ok) state.SkipWithError("read failed");
}

void HandoffLiburing(benchmark::State& state) {
  int fd = OpenData(state, false);
  if (fd < 0) return;
  io_uring ring;
  io_uring_queue_init(8, &ring, 0);
  Buffers buf;
  bool ok = true;
  for (auto _ : state) {
    io_uring_prep_read(io_uring_get_sqe(&ring), fd, buf.blocks[0], 4096, 0);
    io_uring_submit(&ring);
    io_uring_cqe* cqe;
    io_uring_wait_cqe(&ring, &cqe);
    ok &= cqe->res == 4096;
    io_uring_cqe_seen(&ring, cqe);
  }
  io_uring_queue_exit(&ring);
  close(fd);
  if (!ok) state.SkipWithError("read failed");
}

void RegisterAll() {
  for (bool direct : {false, true}) {
    const std::string mode = direct ? "direct" : "warm";
    benchmark::RegisterBenchmark(("fileread/com/" + mode).c_str(), FileReadCom,
                                 direct)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("fileread/liburing/" + mode).c_str(),
                                 FileReadLiburing, direct)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("fileread/pread/" + mode).c_str(),
                                 FileReadPread, direct)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
  for (int conns : {1, 64}) {
    for (size_t size : {size_t{64}, size_t{16384}}) {
      const std::string args =
          "/" + std::to_string(conns) + "/" + std::to_string(size);
      benchmark::RegisterBenchmark(("echo/com" + args).c_str(), Echo<ComServer>,
                                   conns, size)
          ->UseRealTime();
      benchmark::RegisterBenchmark(("echo/asio" + args).c_str(),
                                   Echo<AsioServer>, conns, size)
          ->UseRealTime();
      benchmark::RegisterBenchmark(("echo/epoll" + args).c_str(),
                                   Echo<EpollServer>, conns, size)
          ->UseRealTime();
    }
  }
  benchmark::RegisterBenchmark("post/com", PostCom)->UseRealTime();
  benchmark::RegisterBenchmark("post/liburing", PostLiburing)->UseRealTime();
  benchmark::RegisterBenchmark("postlisten/com", PostListenCom)->UseRealTime();
  benchmark::RegisterBenchmark("postlisten/liburing", PostListenLiburing)
      ->UseRealTime();
  benchmark::RegisterBenchmark("handoff/com", HandoffCom)->UseRealTime();
  benchmark::RegisterBenchmark("handoff/liburing", HandoffLiburing)
      ->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
