#include "common/os/configstore.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <strings.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <ace/Configuration_Import_Export.h>

#include "common/os/internal/configtext.h"

namespace Kelvane {

namespace {

int ReadWholeFile(const char* path, std::string* text) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buf[16384];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      int saved = errno;
      ::close(fd);
      errno = saved;
      return -1;
    }
    if (n == 0) break;
    text->append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return 0;
}

}  // namespace

namespace internal {

namespace {

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t' || s[b] == '\r')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t' || s[e - 1] == '\r'))
    --e;
  return s.substr(b, e - b);
}

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

}  // namespace

std::vector<std::string> SplitSectionPath(const std::string& path) {
  std::vector<std::string> levels;
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = i;
    while (j < path.size() && !IsSeparator(path[j])) ++j;
    std::string level = Trim(path.substr(i, j - i));
    if (!level.empty()) levels.push_back(level);
    i = j + 1;
  }
  return levels;
}

std::string CanonicalIniText(const std::string& text) {
  // First spelling of every level, keyed by the case-folded path up to it.
  std::map<std::string, std::string> spelling;
  std::string out;
  bool inSection = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    std::string line = Trim(text.substr(pos, eol - pos));
    pos = eol + 1;
    // The importer reads lines into a fixed buffer; longer lines would be
    // split in the middle and misread.
    if (line.empty() || line[0] == ';' || line[0] == '#' ||
        line.size() >= kMaxIniLine) {
      continue;
    }
    if (line[0] == '[') {
      size_t close = line.rfind(']');
      std::string name = line.substr(1, close == std::string::npos || close == 0
                                            ? std::string::npos
                                            : close - 1);
      std::vector<std::string> levels = SplitSectionPath(name);
      inSection = !levels.empty();
      if (!inSection) continue;
      std::string folded, canonical;
      for (const std::string& level : levels) {
        folded += '\\';
        folded += Lower(level);
        auto it = spelling.emplace(folded, level).first;
        if (!canonical.empty()) canonical += '\\';
        canonical += it->second;
      }
      out += '[';
      out += canonical;
      out += "]\n";
      continue;
    }
    if (!inSection) continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos || Trim(line.substr(0, eq)).empty()) continue;
    out += line;
    out += '\n';
  }
  return out;
}

std::string SetIniValue(const std::string& text, const std::string& section,
                        const std::string& name, const std::string& value) {
  std::vector<std::string> target = SplitSectionPath(section);
  for (std::string& level : target) level = Lower(level);
  const std::string wantedName = Lower(Trim(name));

  std::vector<std::string> lines;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string::npos) eol = text.size();
    lines.push_back(text.substr(pos, eol - pos));
    pos = eol + 1;
  }
  bool inTarget = false;
  bool valueSeen = false;
  size_t firstHeader = std::string::npos;
  size_t insertAfter = std::string::npos;  // last line of the first section
  bool inFirst = false;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string line = Trim(lines[i]);
    if (!line.empty() && line[0] == '[') {
      size_t close = line.rfind(']');
      std::vector<std::string> levels = SplitSectionPath(line.substr(
          1, close == std::string::npos || close == 0 ? std::string::npos
                                                      : close - 1));
      for (std::string& level : levels) level = Lower(level);
      inTarget = !levels.empty() && levels == target;
      inFirst = inTarget && firstHeader == std::string::npos;
      if (inFirst) firstHeader = insertAfter = i;
      continue;
    }
    size_t eq = line.find('=');
    bool isValue = !line.empty() && line[0] != ';' && line[0] != '#' &&
                   eq != std::string::npos && eq != 0;
    if (!inTarget || !isValue) continue;
    if (inFirst) insertAfter = i;
    if (!wantedName.empty() && Lower(Trim(line.substr(0, eq))) == wantedName) {
      lines[i] = Trim(line.substr(0, eq)) + "=" + value;
      valueSeen = true;
    }
  }
  const std::string entry = name.empty() ? "" : Trim(name) + "=" + value;
  bool endsWithNewline = text.empty() || text.back() == '\n';
  if (firstHeader == std::string::npos) {
    if (!lines.empty() && !Trim(lines.back()).empty()) lines.push_back("");
    std::string header = "[";
    for (const std::string& level : SplitSectionPath(section)) {
      if (header.size() > 1) header += '\\';
      header += level;
    }
    lines.push_back(header + "]");
    if (!entry.empty()) lines.push_back(entry);
    endsWithNewline = true;
  } else if (!valueSeen && !entry.empty()) {
    lines.insert(lines.begin() + static_cast<long>(insertAfter) + 1, entry);
    if (insertAfter + 2 == lines.size()) endsWithNewline = true;
  }
  std::string out;
  for (size_t i = 0; i < lines.size(); ++i) {
    out += lines[i];
    if (i + 1 < lines.size() || endsWithNewline) out += '\n';
  }
  return out;
}

}  // namespace internal

const char ConfigStore::kDefaultFile[] = "/etc/kelvane/kelvane.ini";
const char ConfigStore::kFileVariable[] = "KELVANE_CONFIG";

ACE_CString ConfigStore::FilePath() {
  const char* env = std::getenv(kFileVariable);
  if (env != nullptr && *env != '\0') return ACE_CString(env);
  return ACE_CString(kDefaultFile);
}

int ConfigStore::ImportIni(ACE_Configuration& config, const char* file) {
  if (file == nullptr) {
    errno = EINVAL;
    return -1;
  }
  std::string text;
  if (ReadWholeFile(file, &text) != 0) return -1;
  const std::string canonical = internal::CanonicalIniText(text);

  // The importer only reads named files: hand it the canonical text through
  // an anonymous memory file.
  int mfd = ::memfd_create("kelvane-config", MFD_CLOEXEC);
  if (mfd < 0) return -1;
  size_t done = 0;
  while (done < canonical.size()) {
    ssize_t n = ::write(mfd, canonical.data() + done, canonical.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int saved = errno;
      ::close(mfd);
      errno = saved;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  char name[64];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", mfd);
  ACE_Ini_ImpExp importer(config);
  int rc = importer.import_config(name);
  ::close(mfd);
  if (rc != 0) {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

int ConfigStore::OpenSection(ACE_Configuration& config,
                             const ACE_Configuration_Section_Key& base,
                             const char* path,
                             ACE_Configuration_Section_Key& out) {
  ACE_Configuration_Section_Key current = base;
  for (const std::string& level :
       internal::SplitSectionPath(path == nullptr ? "" : path)) {
    ACE_TString name;
    bool found = false;
    for (int i = 0; config.enumerate_sections(current, i, name) == 0; ++i) {
      if (::strcasecmp(name.c_str(), level.c_str()) == 0) {
        found = true;
        break;
      }
    }
    ACE_Configuration_Section_Key next;
    if (!found || config.open_section(current, name.c_str(), 0, next) != 0) {
      return -1;
    }
    current = next;
  }
  out = current;
  return 0;
}

int ConfigStore::GetString(ACE_Configuration& config,
                           const ACE_Configuration_Section_Key& key,
                           const char* name, ACE_CString& value) {
  if (name == nullptr) return -1;
  ACE_TString stored;
  ACE_Configuration::VALUETYPE type;
  for (int i = 0; config.enumerate_values(key, i, stored, type) == 0; ++i) {
    if (::strcasecmp(stored.c_str(), name) != 0) continue;
    if (type != ACE_Configuration::STRING) return -1;
    ACE_TString text;
    if (config.get_string_value(key, stored.c_str(), text) != 0) return -1;
    value = ACE_CString(text.c_str(), text.length());
    return 0;
  }
  return -1;
}

namespace {

int WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

// Holds an exclusive flock on a folder; the kernel drops it with its holder.
class FolderLock {
 public:
  explicit FolderLock(const std::string& folder)
      : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ < 0) return;
    int r;
    do {
      r = ::flock(fd_, LOCK_EX);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
      int saved = errno;
      ::close(fd_);
      fd_ = -1;
      errno = saved;
    }
  }
  ~FolderLock() {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
  }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace

int ConfigStore::WriteString(const char* file, const char* key,
                             const char* name, const char* value) {
  if (key == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const std::string path = file != nullptr ? file : FilePath().c_str();
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "."
                             : slash == 0               ? "/"
                                                        : path.substr(0, slash);
  FolderLock lock(folder);
  if (!lock.ok()) return -1;

  std::string text;
  mode_t mode = 0644;
  struct stat st;
  bool existed = ::stat(path.c_str(), &st) == 0;
  if (existed) {
    mode = st.st_mode & 07777;
    if (ReadWholeFile(path.c_str(), &text) != 0) return -1;
  } else if (errno != ENOENT) {
    return -1;
  }
  const std::string updated = internal::SetIniValue(
      text, key, name != nullptr ? name : "", value != nullptr ? value : "");
  if (existed && updated == text) return 0;

  std::string temp = path + ".XXXXXX";
  int fd = ::mkostemp(&temp[0], O_CLOEXEC);
  if (fd < 0) return -1;
  if (WriteAll(fd, updated) != 0 || ::fchmod(fd, mode) != 0 ||
      ::fsync(fd) != 0) {
    int saved = errno;
    ::close(fd);
    ::unlink(temp.c_str());
    errno = saved;
    return -1;
  }
  ::close(fd);
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    int saved = errno;
    ::unlink(temp.c_str());
    errno = saved;
    return -1;
  }
  return 0;
}

ConfigStore::ConfigStore() : heap_(new ACE_Configuration_Heap) {
  heap_->open();
}

int ConfigStore::Load() { return Load(FilePath()); }

int ConfigStore::Load(const ACE_CString& file) {
  heap_.reset(new ACE_Configuration_Heap);
  heap_->open();
  if (ImportIni(*heap_, file.c_str()) == 0) return 0;
  int saved = errno;
  heap_.reset(new ACE_Configuration_Heap);
  heap_->open();
  errno = saved;
  return -1;
}

int ConfigStore::OpenKey(const char* path, ACE_Configuration_Section_Key& out) {
  return OpenSection(*heap_, heap_->root_section(), path, out);
}

int ReadConfigString(const char* key, const char* name, ACE_CString& value) {
  ConfigStore store;
  if (store.Load() != 0) return -1;
  ACE_Configuration_Section_Key section;
  if (store.OpenKey(key, section) != 0) return -1;
  return ConfigStore::GetString(store.heap(), section, name, value) == 0 ? 0
                                                                         : 1;
}

}  // namespace Kelvane
