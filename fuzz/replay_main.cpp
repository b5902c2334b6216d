// Replays every file of the given folders (or the given files) through
// LLVMFuzzerTestOneInput, so the seed corpus runs without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                          std::istreambuf_iterator<char>());
  // A copy of exactly the file's size, so reads past the end are caught.
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        if (entry.is_regular_file()) {
          RunFile(entry.path());
          ++count;
        }
      }
    } else {
      RunFile(arg);
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
