// File-system utilities beside their everyday peers, on trees and files
// generated once per run under $TMPDIR (or /tmp):
//  - GetFileList recursive over 100,000 files in 1,000 folders, against
//    std::filesystem::recursive_directory_iterator and fts(3), each peer
//    collecting what a listing entry holds (path, size, last-write time);
//  - DirectorySize against `du -s`;
//  - DeleteDirectoryRecursive against `rm -rf` (a fresh tree of 20,000
//    files per iteration, built outside the timing);
//  - CompressFile and CompressFile2 of a 100 MB image-like file against
//    `gzip -9`;
//  - FileCopy of a 1 GB file against `cp`.
// Commands run as child processes (posix_spawn + waitpid); all timings are
// wall-clock.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fts.h>
#include <random>
#include <spawn.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/os/osfile.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 100;
constexpr int kDeleteFolders = 200;
constexpr size_t kImageBytes = 100u << 20;
constexpr size_t kCopyBytes = 1u << 30;

// The scratch folder of this run, removed at exit.
const std::string& Scratch() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string* dir = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string* tmpl = new std::string(
        std::string(tmp && *tmp ? tmp : "/tmp") + "/files-bench-XXXXXX");
    if (::mkdtemp(&(*tmpl)[0]) == nullptr) std::abort();
    std::atexit([] {
      std::string cmd = "rm -rf '" + Scratch() + "'";
      if (std::system(cmd.c_str()) != 0) std::perror("rm");
    });
    return tmpl;
  }();
  return *dir;
}

void WriteFile(const std::string& path, const char* data, size_t size) {
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  if (fd < 0) std::abort();
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0) std::abort();
    done += static_cast<size_t>(n);
  }
  ::close(fd);
}

// `folders` folders of kFilesPerFolder small files each, two levels deep.
void BuildTree(const std::string& root, int folders) {
  ::mkdir(root.c_str(), 0755);
  char data[600];
  std::memset(data, 'x', sizeof data);
  for (int d = 0; d < folders; ++d) {
    std::string group = root + "/g" + std::to_string(d / 50);
    ::mkdir(group.c_str(), 0755);
    std::string dir = group + "/d" + std::to_string(d);
    ::mkdir(dir.c_str(), 0755);
    for (int f = 0; f < kFilesPerFolder; ++f) {
      WriteFile(dir + "/img" + std::to_string(f) + ".dcm", data,
                static_cast<size_t>(f % 6) * 100);
    }
  }
}

const std::string& ListTree() {
  static const std::string root = [] {
    std::string r = Scratch() + "/list";
    BuildTree(r, kFolders);
    return r;
  }();
  return root;
}

// 16-bit slices of a smooth phantom with a few bits of noise, as CT and MR
// pixel data look to a compressor.
const std::string& ImageFile() {
  static const std::string path = [] {
    std::string p = Scratch() + "/image.raw";
    std::vector<uint16_t> pix(kImageBytes / 2);
    std::mt19937 rng(42);
    const int w = 512;
    for (size_t i = 0; i < pix.size(); ++i) {
      int x = static_cast<int>(i % w) - w / 2;
      int y = static_cast<int>(i / w % w) - w / 2;
      int z = static_cast<int>(i / (w * w));
      int r2 = x * x + y * y;
      int base =
          r2 < 200 * 200 ? 1000 + (r2 < 60 * 60 ? 400 : 0) + z % 7 * 3 : 0;
      pix[i] = static_cast<uint16_t>(base ? base + (rng() & 15) : 0);
    }
    WriteFile(p, reinterpret_cast<const char*>(pix.data()), kImageBytes);
    return p;
  }();
  return path;
}

const std::string& CopySource() {
  static const std::string path = [] {
    std::string p = Scratch() + "/copy.src";
    std::vector<char> block(1 << 20);
    std::mt19937 rng(7);
    for (char& c : block) c = static_cast<char>(rng());
    int fd = ::open(p.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    for (size_t done = 0; done < kCopyBytes; done += block.size()) {
      block[0] = static_cast<char>(done >> 20);
      if (::write(fd, block.data(), block.size()) !=
          static_cast<ssize_t>(block.size()))
        std::abort();
    }
    ::close(fd);
    return p;
  }();
  return path;
}

// Runs a command (no shell) with its standard output sent to `out`
// (/dev/null by default) and waits for it; aborts the run when it fails.
void Run(std::vector<std::string> args, const char* out = "/dev/null") {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, out, O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ) != 0)
    std::abort();
  posix_spawn_file_actions_destroy(&fa);
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "command failed: %s\n", args[0].c_str());
    std::abort();
  }
}

// ------------------------------------------------------------ listing

struct PeerEntry {
  std::string path;
  int size;
  int64_t mtime;
};

void ListCom(benchmark::State& state) {
  const std::string& root = ListTree();
  for (auto _ : state) {
    std::vector<Kelvane::FileInfo> out;
    if (Kelvane::GetFileList(out, root.c_str(), "*", true, false) != 0 ||
        out.size() != size_t(kFolders) * kFilesPerFolder)
      std::abort();
    benchmark::DoNotOptimize(out.data());
  }
}

void ListFilesystem(benchmark::State& state) {
  const std::string& root = ListTree();
  for (auto _ : state) {
    std::vector<PeerEntry> out;
    for (const fs::directory_entry& e :
         fs::recursive_directory_iterator(root)) {
      if (!e.is_regular_file()) continue;
      out.push_back(
          PeerEntry{e.path().string(), static_cast<int>(e.file_size()),
                    static_cast<int64_t>(
                        e.last_write_time().time_since_epoch().count())});
    }
    if (out.size() != size_t(kFolders) * kFilesPerFolder) std::abort();
    benchmark::DoNotOptimize(out.data());
  }
}

void ListFts(benchmark::State& state) {
  const std::string& root = ListTree();
  for (auto _ : state) {
    std::vector<PeerEntry> out;
    char* paths[] = {const_cast<char*>(root.c_str()), nullptr};
    FTS* f = ::fts_open(paths, FTS_PHYSICAL | FTS_NOCHDIR, nullptr);
    if (f == nullptr) std::abort();
    while (FTSENT* e = ::fts_read(f)) {
      if (e->fts_info != FTS_F) continue;
      out.push_back(PeerEntry{std::string(e->fts_path, e->fts_pathlen),
                              static_cast<int>(e->fts_statp->st_size),
                              e->fts_statp->st_mtim.tv_sec});
    }
    ::fts_close(f);
    if (out.size() != size_t(kFolders) * kFilesPerFolder) std::abort();
    benchmark::DoNotOptimize(out.data());
  }
}

// ------------------------------------------------------------ size

void SizeCom(benchmark::State& state) {
  const std::string& root = ListTree();
  for (auto _ : state) {
    ACE_UINT64 size = Kelvane::DirectorySize(root.c_str(), true);
    if (size == 0) std::abort();
    benchmark::DoNotOptimize(size);
  }
}

void SizeDu(benchmark::State& state) {
  const std::string& root = ListTree();
  for (auto _ : state) Run({"du", "-s", root});
}

// ------------------------------------------------------------ delete

// On the scratch disk, after a sync, and on /dev/shm, where the figures
// show the walk itself without the file system's journal.
template <typename Remove>
void DeleteBench(benchmark::State& state, bool onDisk, Remove remove) {
  std::string shm = "/dev/shm/files-bench-XXXXXX";
  if (onDisk || ::mkdtemp(&shm[0]) == nullptr) shm = Scratch();
  const std::string root = shm + "/del";
  for (auto _ : state) {
    state.PauseTiming();
    BuildTree(root, kDeleteFolders);
    if (onDisk) ::sync();
    state.ResumeTiming();
    remove(root);
    state.PauseTiming();
    if (::access(root.c_str(), F_OK) == 0) std::abort();
    state.ResumeTiming();
  }
  if (shm != Scratch()) ::rmdir(shm.c_str());
}

void DeleteCom(benchmark::State& state, bool onDisk) {
  DeleteBench(state, onDisk, [](const std::string& root) {
    if (Kelvane::DeleteDirectoryRecursive(root.c_str()) != 0) std::abort();
  });
}

void DeleteRm(benchmark::State& state, bool onDisk) {
  DeleteBench(state, onDisk, [](const std::string& root) {
    Run({"rm", "-rf", root});
  });
}

// ------------------------------------------------------------ compression

void CompressCom(benchmark::State& state, int (*fn)(const ACE_CString&, bool)) {
  const std::string& src = ImageFile();
  for (auto _ : state) {
    if (fn(src.c_str(), false) != 0) std::abort();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

void Compress1(benchmark::State& state) {
  CompressCom(state, &Kelvane::CompressFile);
}
void Compress2(benchmark::State& state) {
  CompressCom(state, &Kelvane::CompressFile2);
}

void CompressGzip(benchmark::State& state) {
  const std::string& src = ImageFile();
  const std::string out = Scratch() + "/gzip.gz";
  for (auto _ : state) Run({"gzip", "-9", "-c", src}, out.c_str());
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kImageBytes));
}

// ------------------------------------------------------------ copy

template <typename Copy>
void CopyBench(benchmark::State& state, Copy copy) {
  const std::string& src = CopySource();
  const std::string dst = Scratch() + "/copy.dst";
  for (auto _ : state) {
    state.PauseTiming();
    ::unlink(dst.c_str());
    ::sync();
    state.ResumeTiming();
    copy(src, dst);
  }
  ::unlink(dst.c_str());
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kCopyBytes));
}

void CopyCom(benchmark::State& state) {
  CopyBench(state, [](const std::string& s, const std::string& d) {
    if (Kelvane::FileCopy(s.c_str(), d.c_str(), false) != 0) std::abort();
  });
}

void CopyCp(benchmark::State& state) {
  CopyBench(state, [](const std::string& s, const std::string& d) {
    Run({"cp", s, d});
  });
}

void Register() {
  auto ms = [](benchmark::internal::Benchmark* b, int iterations) {
    b->UseRealTime()->Unit(benchmark::kMillisecond);
    if (iterations > 0) b->Iterations(iterations);
  };
  const char* files = "100000";
  ms(benchmark::RegisterBenchmark(
         (std::string("GetFileList/com/") + files).c_str(), ListCom),
     0);
  ms(benchmark::RegisterBenchmark(
         (std::string("GetFileList/filesystem/") + files).c_str(),
         ListFilesystem),
     0);
  ms(benchmark::RegisterBenchmark(
         (std::string("GetFileList/fts/") + files).c_str(), ListFts),
     0);
  ms(benchmark::RegisterBenchmark(
         (std::string("DirectorySize/com/") + files).c_str(), SizeCom),
     0);
  ms(benchmark::RegisterBenchmark(
         (std::string("DirectorySize/du/") + files).c_str(), SizeDu),
     0);
  for (bool disk : {false, true}) {
    const std::string args = disk ? "/20000/disk" : "/20000/shm";
    ms(benchmark::RegisterBenchmark(
           ("DeleteDirectoryRecursive/com" + args).c_str(), DeleteCom, disk),
       disk ? 3 : 5);
    ms(benchmark::RegisterBenchmark(
           ("DeleteDirectoryRecursive/rm" + args).c_str(), DeleteRm, disk),
       disk ? 3 : 5);
  }
  ms(benchmark::RegisterBenchmark("CompressFile/com/100MB", Compress1), 2);
  ms(benchmark::RegisterBenchmark("CompressFile/gzip/100MB", CompressGzip), 2);
  ms(benchmark::RegisterBenchmark("CompressFile2/com/100MB", Compress2), 2);
  ms(benchmark::RegisterBenchmark("CompressFile2/gzip/100MB", CompressGzip), 2);
  ms(benchmark::RegisterBenchmark("FileCopy/com/1GB", CopyCom), 3);
  ms(benchmark::RegisterBenchmark("FileCopy/cp/1GB", CopyCp), 3);
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
