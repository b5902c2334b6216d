// Helpers shared by the stream tests: a scratch folder and an allocator
// that records what the streams ask of it.
#ifndef COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_
#define COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <ace/Malloc_Allocator.h>

namespace streamtest {

// A fresh folder under the system's temp folder, removed with its content.
class TempDir {
 public:
  TempDir() {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "com-streams-XXXXXX")
            .string();
    if (mkdtemp(tmpl.data()) != nullptr) path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  const std::string& path() const { return path_; }
  std::string File(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)),
                     std::istreambuf_iterator<char>());
}

// A real heap allocator that keeps the size of every request, can refuse
// requests from the n-th on, and counts blocks not given back.
class RecordingAllocator : public ACE_New_Allocator {
 public:
  void* malloc(size_t nbytes) override {
    requests.push_back(nbytes);
    if (refuse_from >= 0 && static_cast<int>(requests.size()) > refuse_from) {
      return nullptr;
    }
    ++live;
    return ACE_New_Allocator::malloc(nbytes);
  }
  void free(void* ptr) override {
    if (ptr != nullptr) --live;
    ACE_New_Allocator::free(ptr);
  }

  std::vector<size_t> requests;
  int refuse_from = -1;  // requests past this many fail; -1 never
  int live = 0;
};

}  // namespace streamtest

#endif  // COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_
