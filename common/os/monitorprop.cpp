#include "common/os/monitorprop.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

#include "common/base/comlog.h"
#include "common/os/internal/monitorproprules.h"

namespace {

constexpr size_t kBlockSize = 128;
constexpr size_t kDescriptorStart = 54;
constexpr size_t kDescriptorSize = 18;

// The text of a display descriptor: up to 13 bytes, ended by a line feed,
// padded with blanks.
ACE_CString DescriptorText(const unsigned char* d) {
  std::string s;
  for (size_t i = 5; i < kDescriptorSize && d[i] != 0x0A && d[i] != 0; ++i)
    s += static_cast<char>(d[i] >= 0x20 && d[i] < 0x7F ? d[i] : '?');
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return ACE_CString(s.c_str(), s.size());
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::string();
  return std::string(std::istreambuf_iterator<char>(in),
                     std::istreambuf_iterator<char>());
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool MonitorProp::ParseEdid(const unsigned char* e, size_t size, MonProp& out) {
  static const unsigned char kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF,
                                           0xFF, 0xFF, 0xFF, 0x00};
  if (e == nullptr || size < kBlockSize) return false;
  if (std::memcmp(e, kHeader, sizeof kHeader) != 0) return false;
  unsigned sum = 0;
  for (size_t i = 0; i < kBlockSize; ++i) sum += e[i];
  if ((sum & 0xFF) != 0) return false;

  MonProp m = out;
  m.edidValid = true;
  // Three 5-bit letters, 1 = 'A', big-endian.
  const unsigned id = (unsigned{e[8]} << 8) | e[9];
  char maker[4] = {static_cast<char>('@' + ((id >> 10) & 0x1F)),
                   static_cast<char>('@' + ((id >> 5) & 0x1F)),
                   static_cast<char>('@' + (id & 0x1F)), '\0'};
  m.manufacturer = maker;
  m.productCode = unsigned{e[10]} | (unsigned{e[11]} << 8);
  m.serialNumber = unsigned{e[12]} | (unsigned{e[13]} << 8) |
                   (unsigned{e[14]} << 16) | (unsigned{e[15]} << 24);
  m.manufactureYear = e[17] ? 1990u + e[17] : 0;
  m.edidVersion = e[18];
  m.edidRevision = e[19];
  m.widthMm = e[21] * 10u;
  m.heightMm = e[22] * 10u;
  m.serialText = "";
  m.modelName = "";
  m.preferredWidth = m.preferredHeight = m.preferredRefreshHz = 0;

  bool haveTiming = false;
  for (size_t k = 0; k < 4; ++k) {
    const unsigned char* d = e + kDescriptorStart + k * kDescriptorSize;
    const unsigned clock = unsigned{d[0]} | (unsigned{d[1]} << 8);
    if (clock != 0) {
      if (haveTiming) continue;  // the first detailed timing is preferred
      haveTiming = true;
      const unsigned hActive = d[2] | ((d[4] & 0xF0u) << 4);
      const unsigned hBlank = d[3] | ((d[4] & 0x0Fu) << 8);
      const unsigned vActive = d[5] | ((d[7] & 0xF0u) << 4);
      const unsigned vBlank = d[6] | ((d[7] & 0x0Fu) << 8);
      m.preferredWidth = hActive;
      m.preferredHeight = vActive;
      const unsigned long long pixels =
          static_cast<unsigned long long>(hActive + hBlank) *
          (vActive + vBlank);
      if (pixels != 0)
        m.preferredRefreshHz =
            static_cast<unsigned>((clock * 10000ull + pixels / 2) / pixels);
      const unsigned wMm = d[12] | ((d[14] & 0xF0u) << 4);
      const unsigned hMm = d[13] | ((d[14] & 0x0Fu) << 8);
      if (wMm != 0 && hMm != 0) {
        m.widthMm = wMm;
        m.heightMm = hMm;
      }
    } else if (d[2] == 0) {
      if (d[3] == 0xFC) m.modelName = DescriptorText(d);
      if (d[3] == 0xFF) m.serialText = DescriptorText(d);
    }
  }
  out = m;
  return true;
}

namespace MonitorPropRules {

bool ConnectorBefore(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (IsDigit(a[i]) && IsDigit(b[j])) {
      size_t ei = i, ej = j;
      while (ei < a.size() && IsDigit(a[ei])) ++ei;
      while (ej < b.size() && IsDigit(b[ej])) ++ej;
      // Compare by value: skip leading zeros, then length, then digits.
      size_t si = i, sj = j;
      while (si + 1 < ei && a[si] == '0') ++si;
      while (sj + 1 < ej && b[sj] == '0') ++sj;
      if (ei - si != ej - sj) return ei - si < ej - sj;
      const int c = a.compare(si, ei - si, b, sj, ej - sj);
      if (c != 0) return c < 0;
      i = ei;
      j = ej;
    } else {
      if (a[i] != b[j])
        return static_cast<unsigned char>(a[i]) <
               static_cast<unsigned char>(b[j]);
      ++i;
      ++j;
    }
  }
  if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
  return a < b;  // "card01" and "card1": any fixed order
}

int EnumerateAt(const char* drmDir, std::vector<MonProp>& out,
                bool connectedOnly) {
  out.clear();
  DIR* dir = ::opendir(drmDir);
  if (dir == nullptr) {
    if (errno == ENOENT || errno == ENOTDIR) return 0;  // no GPU at all
    COM_LOG((LM_ERROR, "MonitorProp::Enumerate: cannot list %C. OS Error: %m\n",
             drmDir));
    return -1;
  }
  std::vector<std::string> names;
  while (struct dirent* ent = ::readdir(dir)) {
    // Connectors are "card<N>-<name>"; the cards, render nodes and the
    // "version" file are not.
    const char* n = ent->d_name;
    if (std::strncmp(n, "card", 4) != 0 || !IsDigit(n[4])) continue;
    const char* p = n + 4;
    while (IsDigit(*p)) ++p;
    if (*p != '-' || p[1] == '\0') continue;
    names.push_back(n);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end(), ConnectorBefore);

  const std::string base = std::string(drmDir) + "/";
  for (const std::string& name : names) {
    std::string status = ReadFile(base + name + "/status");
    while (!status.empty() && (status.back() == '\n' || status.back() == ' '))
      status.pop_back();
    if (connectedOnly && status != "connected") continue;
    MonProp m;
    m.connector = name.c_str();
    m.status = status.c_str();
    const std::string edid = ReadFile(base + name + "/edid");
    MonitorProp::ParseEdid(reinterpret_cast<const unsigned char*>(edid.data()),
                           edid.size(), m);
    out.push_back(m);
  }
  return static_cast<int>(out.size());
}

}  // namespace MonitorPropRules

int MonitorProp::Enumerate(std::vector<MonProp>& out, bool connectedOnly) {
  return MonitorPropRules::EnumerateAt("/sys/class/drm", out, connectedOnly);
}
