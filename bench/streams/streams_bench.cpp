// The byte streams beside their peers, as "<case>/<impl>/<args>":
//   zwrite            OutputZMemStream vs raw deflate into a preallocated
//                     buffer, 64 MiB of 16-bit image-like data in 64 KiB
//                     writes, level 6;
//   zwrite_flush1MiB  the same with a Flush() every 1 MiB, against the same
//                     raw deflate (the ratio is the cost of the flushes);
//   zread             InputZMemStream vs raw inflate of the same block, in
//                     64 KiB reads and in one read of everything;
//   memgrowth         OutputMemStream vs std::vector<char> appends;
//   copy              operator<< from InputFSStream to OutputFSStream vs
//                     fork/exec of cp(1), for a 1 GiB file in /var/tmp.
//                     Closing the output (which fsyncs) is not timed, as cp
//                     does not sync either.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <zlib.h>

#include <benchmark/benchmark.h>

#include "common/iostreams/inputfsstream.h"
#include "common/iostreams/inputzmemstream.h"
#include "common/iostreams/outputfsstream.h"
#include "common/iostreams/outputmemstream.h"
#include "common/iostreams/outputzmemstream.h"
#include "common/iostreams/streamcopy.h"

namespace {

constexpr size_t kImageBytes = size_t{64} << 20;
constexpr unsigned kPiece = 64 << 10;
constexpr int kLevel = 6;

// Slices of a smooth 512-wide picture with a little noise in the low bits.
const std::vector<unsigned char>& Image() {
  static const std::vector<unsigned char> image = [] {
    std::vector<unsigned char> v(kImageBytes);
    std::mt19937 rng(2024);
    const size_t width = 512;
    for (size_t px = 0; px < kImageBytes / 2; ++px) {
      size_t x = px % width, y = (px / width) % width, z = px / width / width;
      int r2 = static_cast<int>((x - 256) * (x - 256) + (y - 256) * (y - 256));
      int v16 = (r2 < 200 * 200 ? 1200 + static_cast<int>(z) * 3 : 24) +
                static_cast<int>(rng() & 31);
      v[2 * px] = static_cast<unsigned char>(v16);
      v[2 * px + 1] = static_cast<unsigned char>(v16 >> 8);
    }
    return v;
  }();
  return image;
}

// The block OutputZMemStream makes of the image (length word + zlib).
const std::vector<unsigned char>& Block() {
  static const std::vector<unsigned char> block = [] {
    const auto& image = Image();
    OutputZMemStream out(1 << 20, 0, nullptr, kLevel);
    out.WriteBytes(image.data(), static_cast<unsigned>(image.size()));
    out.Flush();
    return std::vector<unsigned char>(out.Data(), out.Data() + out.CurPos());
  }();
  return block;
}

void SetBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kImageBytes));
}

void ZWriteCom(benchmark::State& state, size_t flushEvery) {
  const auto& image = Image();
  for (auto _ : state) {
    OutputZMemStream out(1 << 16, 0, nullptr, kLevel);
    size_t sinceFlush = 0;
    for (size_t off = 0; off < image.size(); off += kPiece) {
      out.WriteBytes(image.data() + off, kPiece);
      sinceFlush += kPiece;
      if (flushEvery != 0 && sinceFlush >= flushEvery) {
        out.Flush();
        sinceFlush = 0;
      }
    }
    out.Flush();
    benchmark::DoNotOptimize(out.CurPos());
  }
  SetBytes(state);
}

void ZWriteZlib(benchmark::State& state) {
  const auto& image = Image();
  std::vector<unsigned char> out(compressBound(image.size()) + 4);
  for (auto _ : state) {
    z_stream z = {};
    deflateInit(&z, kLevel);
    z.next_out = out.data() + 4;
    z.avail_out = static_cast<uInt>(out.size() - 4);
    for (size_t off = 0; off < image.size(); off += kPiece) {
      z.next_in = const_cast<Bytef*>(image.data() + off);
      z.avail_in = kPiece;
      deflate(&z, off + kPiece < image.size() ? Z_NO_FLUSH : Z_FINISH);
    }
    std::memcpy(out.data(), &z.total_in, 4);
    benchmark::DoNotOptimize(z.total_out);
    deflateEnd(&z);
  }
  SetBytes(state);
}

void ZReadCom(benchmark::State& state, unsigned piece) {
  const auto& block = Block();
  std::vector<unsigned char> out(kImageBytes);
  for (auto _ : state) {
    InputZMemStream in(block.data(), static_cast<unsigned>(block.size()));
    size_t got = 0;
    while (unsigned n = in.ReadBytes(out.data() + got,
                                     static_cast<unsigned>(std::min<size_t>(
                                         piece, out.size() - got)))) {
      got += n;
      if (got == out.size()) break;
    }
    if (got != kImageBytes) state.SkipWithError("short read");
    benchmark::DoNotOptimize(out.data());
  }
  SetBytes(state);
}

void ZReadZlib(benchmark::State& state, unsigned piece) {
  const auto& block = Block();
  std::vector<unsigned char> out(kImageBytes);
  for (auto _ : state) {
    z_stream z = {};
    inflateInit(&z);
    z.next_in = const_cast<Bytef*>(block.data() + 4);
    z.avail_in = static_cast<uInt>(block.size() - 4);
    size_t got = 0;
    int rc = Z_OK;
    while (rc == Z_OK) {
      z.next_out = out.data() + got;
      z.avail_out =
          static_cast<uInt>(std::min<size_t>(piece, out.size() - got));
      rc = inflate(&z, Z_NO_FLUSH);
      got = z.total_out;
    }
    if (rc != Z_STREAM_END || got != kImageBytes) {
      state.SkipWithError("inflate failed");
    }
    inflateEnd(&z);
    benchmark::DoNotOptimize(out.data());
  }
  SetBytes(state);
}

void MemGrowthCom(benchmark::State& state, unsigned piece) {
  const auto& image = Image();
  for (auto _ : state) {
    OutputMemStream out(1024, 0, nullptr);
    for (size_t off = 0; off < image.size(); off += piece) {
      out.WriteBytes(image.data() + off, piece);
    }
    benchmark::DoNotOptimize(out.Data());
  }
  SetBytes(state);
}

void MemGrowthVector(benchmark::State& state, unsigned piece) {
  const auto& image = Image();
  for (auto _ : state) {
    std::vector<char> out;
    out.reserve(1024);
    for (size_t off = 0; off < image.size(); off += piece) {
      const char* p = reinterpret_cast<const char*>(image.data()) + off;
      out.insert(out.end(), p, p + piece);
    }
    benchmark::DoNotOptimize(out.data());
  }
  SetBytes(state);
}

constexpr size_t kCopyBytes = size_t{1} << 30;

const std::string& CopySource() {
  static const std::string path = [] {
    std::string p = "/var/tmp/com-streams-bench-" +
                    std::to_string(static_cast<long>(getpid())) + ".src";
    int fd = open(p.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    const auto& image = Image();
    for (size_t done = 0; done < kCopyBytes; done += image.size()) {
      if (write(fd, image.data(), image.size()) !=
          static_cast<ssize_t>(image.size())) {
        std::perror("write");
        break;
      }
    }
    close(fd);
    return p;
  }();
  return path;
}

std::string CopyTarget() { return CopySource() + ".copy"; }

void CopyCom(benchmark::State& state) {
  const std::string& src = CopySource();
  const std::string dst = CopyTarget();
  for (auto _ : state) {
    InputFSStream in;
    in.Open(src.c_str());
    OutputFSStream out;
    out.Open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    out << in;
    state.PauseTiming();
    out.Close();
    unlink(dst.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kCopyBytes));
}

void CopyCp(benchmark::State& state) {
  const std::string& src = CopySource();
  const std::string dst = CopyTarget();
  for (auto _ : state) {
    pid_t pid = fork();
    if (pid == 0) {
      execlp("cp", "cp", src.c_str(), dst.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("cp failed");
    }
    state.PauseTiming();
    unlink(dst.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(kCopyBytes));
}

void Register() {
  using benchmark::RegisterBenchmark;
  auto ms = [](benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
  };
  ms(RegisterBenchmark("zwrite/com/64MiB", ZWriteCom, size_t{0}));
  ms(RegisterBenchmark("zwrite/zlib/64MiB", ZWriteZlib));
  ms(RegisterBenchmark("zwrite_flush1MiB/com/64MiB", ZWriteCom,
                       size_t{1} << 20));
  ms(RegisterBenchmark("zwrite_flush1MiB/zlib/64MiB", ZWriteZlib));
  ms(RegisterBenchmark("zread/com/64KiB", ZReadCom, kPiece));
  ms(RegisterBenchmark("zread/zlib/64KiB", ZReadZlib, kPiece));
  ms(RegisterBenchmark("zread/com/whole", ZReadCom, unsigned{kImageBytes}));
  ms(RegisterBenchmark("zread/zlib/whole", ZReadZlib, unsigned{kImageBytes}));
  for (unsigned piece : {64u, 4096u, 65536u}) {
    std::string args = "64MiB/" + std::to_string(piece);
    ms(RegisterBenchmark(("memgrowth/com/" + args).c_str(), MemGrowthCom,
                         piece));
    ms(RegisterBenchmark(("memgrowth/vector/" + args).c_str(), MemGrowthVector,
                         piece));
  }
  ms(RegisterBenchmark("copy/com/1GiB", CopyCom));
  ms(RegisterBenchmark("copy/cp/1GiB", CopyCp));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Register();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  // The source file exists only when the copy cases ran.
  std::string src = "/var/tmp/com-streams-bench-" +
                    std::to_string(static_cast<long>(getpid())) + ".src";
  unlink(src.c_str());
  unlink((src + ".copy").c_str());
  return 0;
}
