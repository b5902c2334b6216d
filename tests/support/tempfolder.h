// A fresh folder under the system's temporary folder, removed with its
// contents when the object goes. Mode 0755, so a child running under
// another user (support/runas.h) can reach the files inside.
#ifndef COM_TESTS_SUPPORT_TEMPFOLDER_H_
#define COM_TESTS_SUPPORT_TEMPFOLDER_H_

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace testsupport {

class TempFolder {
 public:
  TempFolder() {
    std::string tmpl =
        (std::filesystem::temp_directory_path() / "com-test-XXXXXX").string();
    if (mkdtemp(tmpl.data()) != nullptr) {
      path_ = tmpl;
      chmod(path_.c_str(), 0755);
    }
  }
  ~TempFolder() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  bool ok() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

  // Writes `bytes` to a file of the folder and returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    std::string p = File(name);
    std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
    return p;
  }
  // The whole content of a file at `path` (empty when it cannot be read).
  static std::string Read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

 private:
  std::string path_;
};

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_TEMPFOLDER_H_
