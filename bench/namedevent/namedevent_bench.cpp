// Wake latency between two processes: a round trip is one process waking the
// other and being woken back. com's named event (a manual-reset event each
// way: signal, the peer's wait returns, it resets and signals back) against
// the floor of the same exchange over a pair of FIFOs (one byte each way)
// and a pair of eventfds. Each run makes a fixed 10,000 round trips and
// reports the median ("median_ns") and 99th percentile ("p99_ns") of one
// round trip as counters (the reported time is the mean, which the loaded
// machine's stragglers skew; compare the medians). Also the cost of
// signal + reset in one process.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/namedevent/internal/sharedevent.h"
#include "common/namedevent/namedevent.h"

namespace {

constexpr int kRoundTrips = 10000;

using Clock = std::chrono::steady_clock;
using Common::internal::SharedEvent;

// One side of the exchange: Kick wakes the peer, Await blocks until woken.
struct Channel {
  virtual ~Channel() = default;
  virtual void Kick(int direction) = 0;
  virtual void Await(int direction) = 0;
};

struct EventChannel : Channel {
  EventChannel()
      : ping(("Global\\ComBench_ping_" + std::to_string(::getpid())).c_str()),
        pong(("Global\\ComBench_pong_" + std::to_string(::getpid())).c_str()) {}
  Common::NamedEvent& Of(int d) { return d == 0 ? ping : pong; }
  void Kick(int d) override { Of(d).signal(); }
  void Await(int d) override {
    auto* ev = static_cast<SharedEvent*>(Of(d).handle());
    ev->Wait(nullptr);
    ev->Reset();
  }
  Common::NamedEvent ping, pong;
};

struct FdChannel : Channel {
  int write_[2] = {-1, -1};
  int read_[2] = {-1, -1};
  size_t size = 1;
  void Kick(int d) override {
    uint64_t one = 1;
    if (::write(write_[d], &one, size) < 0) std::abort();
  }
  void Await(int d) override {
    uint64_t v = 0;
    if (::read(read_[d], &v, size) < 0) std::abort();
  }
};

struct FifoChannel : FdChannel {
  FifoChannel() {
    for (int d = 0; d < 2; ++d) {
      int fds[2];
      if (::pipe(fds) != 0) std::abort();
      read_[d] = fds[0];
      write_[d] = fds[1];
    }
  }
};

struct EventfdChannel : FdChannel {
  EventfdChannel() {
    size = sizeof(uint64_t);
    for (int d = 0; d < 2; ++d) read_[d] = write_[d] = ::eventfd(0, 0);
  }
};

void RoundTrips(benchmark::State& state, Channel& ch) {
  auto* stop = static_cast<std::atomic<int>*>(
      ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  stop->store(0);
  pid_t pid = ::fork();
  if (pid == 0) {
    for (;;) {
      ch.Await(0);
      if (stop->load()) ::_exit(0);
      ch.Kick(1);
    }
  }
  std::vector<int64_t> ns;
  ns.reserve(kRoundTrips);
  for (auto _ : state) {
    auto t0 = Clock::now();
    ch.Kick(0);
    ch.Await(1);
    auto t1 = Clock::now();
    ns.push_back(
        std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count());
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
  }
  stop->store(1);
  ch.Kick(0);
  ::waitpid(pid, nullptr, 0);
  ::munmap(stop, sizeof(std::atomic<int>));
  std::sort(ns.begin(), ns.end());
  state.counters["median_ns"] = static_cast<double>(ns[ns.size() / 2]);
  state.counters["p99_ns"] = static_cast<double>(ns[ns.size() * 99 / 100]);
}

void BM_WakeCom(benchmark::State& state) {
  EventChannel ch;
  RoundTrips(state, ch);
}
void BM_WakeFifo(benchmark::State& state) {
  FifoChannel ch;
  RoundTrips(state, ch);
}
void BM_WakeEventfd(benchmark::State& state) {
  EventfdChannel ch;
  RoundTrips(state, ch);
}

void BM_SignalResetCom(benchmark::State& state) {
  Common::NamedEvent ev(
      ("Global\\ComBench_sr_" + std::to_string(::getpid())).c_str());
  for (auto _ : state) {
    ev.signal();
    ev.reset();
  }
}

// The nearest one-process peer: an eventfd written and drained.
void BM_SignalResetEventfd(benchmark::State& state) {
  int fd = ::eventfd(0, EFD_NONBLOCK);
  uint64_t one = 1, v = 0;
  for (auto _ : state) {
    if (::write(fd, &one, sizeof one) < 0 || ::read(fd, &v, sizeof v) < 0)
      std::abort();
  }
  ::close(fd);
}

}  // namespace

BENCHMARK(BM_WakeCom)
    ->Name("wake_roundtrip/com")
    ->Iterations(kRoundTrips)
    ->UseManualTime();
BENCHMARK(BM_WakeFifo)
    ->Name("wake_roundtrip/fifo")
    ->Iterations(kRoundTrips)
    ->UseManualTime();
BENCHMARK(BM_WakeEventfd)
    ->Name("wake_roundtrip/eventfd")
    ->Iterations(kRoundTrips)
    ->UseManualTime();
BENCHMARK(BM_SignalResetCom)->Name("signal_reset/com");
BENCHMARK(BM_SignalResetEventfd)->Name("signal_reset/eventfd");

BENCHMARK_MAIN();
