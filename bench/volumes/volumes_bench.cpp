// listVolumes beside libblkid's device cache on 16 loop devices over small
// ext4 images made once at the start (needs root and mkfs.ext4):
//  - ListVolumes/com/16: Kelvane::listVolumes(fixed only, system excluded);
//  - ListVolumes/blkid-cache/16: blkid_probe_all over a throw-away cache
//    and a "UUID=" name for every device found, as blkid(8) lists them.
// Both probe every block device of the machine, not only the 16 loops.
#include <blkid/blkid.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include <ace/Log_Msg.h>

#include <benchmark/benchmark.h>

#include "common/os/volumeutils.h"

namespace {

constexpr int kVolumes = 16;

struct Loop {
  int fd = -1;
};

std::string g_dir;
std::vector<Loop> g_loops;

// Attaches `image` to a free loop device; -1 when none can be had.
int Attach(const std::string& image) {
  int file = ::open(image.c_str(), O_RDWR | O_CLOEXEC);
  int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  int result = -1;
  for (int attempt = 0; file >= 0 && control >= 0 && attempt < 20; ++attempt) {
    int n = ::ioctl(control, LOOP_CTL_GET_FREE);
    if (n < 0) break;
    int fd =
        ::open(("/dev/loop" + std::to_string(n)).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) continue;
    struct loop_config config;
    std::memset(&config, 0, sizeof config);
    config.fd = static_cast<__u32>(file);
    if (::ioctl(fd, LOOP_CONFIGURE, &config) == 0) {
      result = fd;
      break;
    }
    ::close(fd);
  }
  if (control >= 0) ::close(control);
  if (file >= 0) ::close(file);
  return result;
}

bool MakeVolumes() {
  char tmpl[] = "/tmp/volumes-bench-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) return false;
  g_dir = tmpl;
  for (int i = 0; i < kVolumes; ++i) {
    const std::string image = g_dir + "/v" + std::to_string(i) + ".img";
    const std::string cmd = "truncate -s 8M '" + image +
                            "' && mkfs.ext4 -q -F '" + image + "' >/dev/null";
    if (std::system(cmd.c_str()) != 0) return false;
    Loop loop;
    loop.fd = Attach(image);
    if (loop.fd < 0) return false;
    g_loops.push_back(loop);
  }
  return true;
}

void RemoveVolumes() {
  for (Loop& l : g_loops) {
    ::ioctl(l.fd, LOOP_CLR_FD, 0);
    ::close(l.fd);
  }
  g_loops.clear();
  if (!g_dir.empty()) {
    if (std::system(("rm -rf '" + g_dir + "'").c_str()) != 0) {
      std::perror("rm");
    }
  }
}

void ListVolumesCom(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<ACE_CString> volumes;
    Kelvane::listVolumes(volumes, true, true);
    benchmark::DoNotOptimize(volumes.data());
  }
}

void ListVolumesBlkidCache(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<std::string> volumes;
    blkid_cache cache = nullptr;
    if (::blkid_get_cache(&cache, "/dev/null") != 0) {
      state.SkipWithError("blkid_get_cache failed");
      return;
    }
    ::blkid_probe_all(cache);
    blkid_dev_iterate it = ::blkid_dev_iterate_begin(cache);
    blkid_dev dev = nullptr;
    while (::blkid_dev_next(it, &dev) == 0) {
      dev = ::blkid_verify(cache, dev);
      if (dev == nullptr) continue;
      const char* name = ::blkid_dev_devname(dev);
      char* uuid = ::blkid_get_tag_value(cache, "UUID", name);
      volumes.push_back(uuid ? std::string("UUID=") + uuid : name);
      std::free(uuid);
    }
    ::blkid_dev_iterate_end(it);
    ::blkid_put_cache(cache);
    benchmark::DoNotOptimize(volumes.data());
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // The listing logs every volume at debug; time the listing, not stderr.
  ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR, ACE_Log_Msg::PROCESS);
  if (::geteuid() != 0 || !MakeVolumes()) {
    std::fprintf(stderr,
                 "volumes_bench: needs root, free loop devices and "
                 "mkfs.ext4\n");
    RemoveVolumes();
    return 0;
  }
  std::vector<ACE_CString> warm;
  Kelvane::listVolumes(warm, true, true);  // the system volume, once
  benchmark::RegisterBenchmark("ListVolumes/com/16", ListVolumesCom)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("ListVolumes/blkid-cache/16",
                               ListVolumesBlkidCache)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  RemoveVolumes();
  return 0;
}
