#include "common/base/dtsstudyurl.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include "common/base/stackutils.h"
#include "common/base/stringutils.h"
#include "common/os/osnetwork.h"

constexpr const char DTSStudyURL::kNoHostname[];
constexpr const char DTSStudyURL::kInvalidPath[];
constexpr const char DTSStudyURL::kNotDtsUrl[];
constexpr const char DTSStudyURL::kMissingParameters[];
constexpr const char DTSStudyURL::kDirectPathname[];
constexpr const char DTSStudyURL::kPortNumber[];
constexpr const char DTSStudyURL::kMissingPath[];
constexpr const char DTSStudyURL::kUnresolvable[];

BadlyFormedUrl::BadlyFormedUrl(const char* message)
    : message_(message == nullptr ? "" : message) {}

const char* BadlyFormedUrl::what() const noexcept { return message_.c_str(); }

namespace {

const char kScheme[] = "dts://";
const size_t kSchemeLength = sizeof kScheme - 1;

ACE_CString Lower(const ACE_CString& s) {
  ACE_CString out(s);
  Kelvane::ToLowerCase(out);
  return out;
}

// The given host lower-cased, or the local host name when it is empty.
ACE_CString ResolveHost(const ACE_CString& host) {
  ACE_CString name(host);
  if (name.length() == 0 && Kelvane::GetHostName(name, false) != 0) {
    throw BadlyFormedUrl(DTSStudyURL::kNoHostname);
  }
  Kelvane::ToLowerCase(name);
  return name;
}

// atoi as the format's runtime did it: saturating at the int range.
int ReadInt(const char* text) {
  long v = std::strtol(text, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

// _atoi64: saturating at the signed 64-bit range.
ACE_INT64 ReadInt64(const char* text) {
  return static_cast<ACE_INT64>(std::strtoll(text, nullptr, 10));
}

// A NUL-terminated copy of a value for the C readers, on the stack when it
// is short.
class CText {
 public:
  CText(const char* p, size_t n) {
    if (n < sizeof small_) {
      std::memcpy(small_, p, n);
      small_[n] = '\0';
      text_ = small_;
    } else {
      large_.assign(p, n);
      text_ = large_.c_str();
    }
  }
  const char* c_str() const { return text_; }

 private:
  char small_[64];
  std::string large_;
  const char* text_;
};

bool KeyIs(const char* key, size_t length, const char* name) {
  return std::strlen(name) == length && ::strncasecmp(key, name, length) == 0;
}

void AppendUnsigned(std::string& out, ACE_UINT64 value) {
  char digits[24];
  int n = std::snprintf(digits, sizeof digits, "%" PRIu64,
                        static_cast<uint64_t>(value));
  out.append(digits, static_cast<size_t>(n));
}

void AppendInt(std::string& out, int value) {
  char digits[16];
  int n = std::snprintf(digits, sizeof digits, "%d", value);
  out.append(digits, static_cast<size_t>(n));
}

void Append(std::string& out, const ACE_CString& s) {
  out.append(s.c_str(), s.length());
}

}  // namespace

DTSStudyURL::DTSStudyURL()
    : type_(0), equivalenceValue_(0), goldServerOverride_(false) {}

DTSStudyURL::DTSStudyURL(const ACE_CString& url) : DTSStudyURL() {
  parseURL(url);
}

DTSStudyURL::DTSStudyURL(const ACE_CString& params, const ACE_CString& host)
    : DTSStudyURL() {
  parseParams(params, host);
}

DTSStudyURL::DTSStudyURL(const ACE_CString& path, const ACE_CString& host,
                         const ACE_CString& suid, unsigned type,
                         const ACE_CString& patientId,
                         ACE_UINT64 equivalenceValue,
                         const BDateTime& timestamp, bool goldServerOverride,
                         const ACE_CString& etag)
    : DTSStudyURL() {
  generateURL(path, host, suid, type, patientId, equivalenceValue, timestamp,
              goldServerOverride, etag);
}

DTSStudyURL::DTSStudyURL(const DTSStudyURL& other) = default;

DTSStudyURL& DTSStudyURL::operator=(const DTSStudyURL& other) = default;

void DTSStudyURL::generateURL(const ACE_CString& path, const ACE_CString& host,
                              const ACE_CString& suid, unsigned type,
                              const ACE_CString& patientId,
                              ACE_UINT64 equivalenceValue,
                              const BDateTime& timestamp,
                              bool goldServerOverride,
                              const ACE_CString& etag) {
  ACE_CString newHost = ResolveHost(host);
  if (path.length() == 0) throw BadlyFormedUrl(kInvalidPath);
  host_ = newHost;
  path_ = path;
  if (suid.length() != 0) suid_ = suid;
  if (patientId.length() != 0) patientId_ = patientId;
  type_ = type;
  equivalenceValue_ = equivalenceValue;
  timestamp_ = timestamp;
  goldServerOverride_ = goldServerOverride;
  etag_ = Lower(etag);
  Regenerate();
}

void DTSStudyURL::Regenerate() {
  ACE_CString params = encodeParams();
  std::string text;
  text.reserve(kSchemeLength + host_.length() + 1 + params.length());
  text.append(kScheme, kSchemeLength);
  Append(text, host_);
  text += '?';
  Append(text, params);
  url_ = ACE_CString(text.data(), text.size());
}

ACE_CString DTSStudyURL::encodeParams() const {
  if (path_.length() == 0) throw BadlyFormedUrl(kInvalidPath);
  const ACE_CString ts = timestamp_.ToString();
  std::string out;
  out.reserve(64 + path_.length() + version_.length() + ts.length() +
              suid_.length() + patientId_.length() + etag_.length() +
              otherParams_.length());
  out += "p=";
  Append(out, path_);
  out += "&t=";
  AppendInt(out, static_cast<int>(type_));
  out += "&v=";
  Append(out, version_);
  out += "&ts=";
  Append(out, ts);
  out += "&n=";
  AppendUnsigned(out, equivalenceValue_);
  out += "&gs=";
  out += goldServerOverride_ ? '1' : '0';
  if (suid_.length() != 0) {
    out += "&suid=";
    Append(out, suid_);
  }
  if (patientId_.length() != 0) {
    out += "&pid=";
    Append(out, patientId_);
  }
  if (etag_.length() != 0) {
    out += "&etag=";
    Append(out, etag_);
  }
  Append(out, otherParams_);
  return ACE_CString(out.data(), out.size());
}

ACE_CString DTSStudyURL::allParams() const { return encodeParams(); }

void DTSStudyURL::parseURL(const ACE_CString& url) {
  // The text is read up to its first NUL, as a C-string copy of it would
  // be; the checks below only read, so no copy is made.
  const char* text = url.c_str();
  const size_t length = std::strlen(text);
  if (length < kSchemeLength || ::strncasecmp(text, kScheme, kSchemeLength)) {
    throw BadlyFormedUrl(kNotDtsUrl);
  }
  const char* hostStart = text + kSchemeLength;
  const char* question = std::strchr(hostStart, '?');
  if (question == nullptr) throw BadlyFormedUrl(kMissingParameters);
  const size_t hostLength = static_cast<size_t>(question - hostStart);
  if (std::memchr(hostStart, '/', hostLength) != nullptr) {
    throw BadlyFormedUrl(kDirectPathname);
  }
  if (std::memchr(hostStart, ':', hostLength) != nullptr) {
    throw BadlyFormedUrl(kPortNumber);
  }
  DTSStudyURL next;
  next.ReadQuery(question + 1, text + length,
                 ACE_CString(hostStart, hostLength));
  next.url_ = url;
  Swap(next);
}

void DTSStudyURL::parseParams(const ACE_CString& params,
                              const ACE_CString& host) {
  DTSStudyURL next;
  next.ReadQuery(params.c_str(), params.c_str() + params.length(), host);
  next.Regenerate();
  Swap(next);
}

void DTSStudyURL::ReadQuery(const char* p, const char* end,
                            const ACE_CString& host) {
  bool havePath = false;
  bool haveTimestamp = false;
  std::string other;
  while (p <= end) {
    const char* amp = static_cast<const char*>(std::memchr(p, '&', end - p));
    const char* itemEnd = amp == nullptr ? end : amp;
    const char* eq = static_cast<const char*>(std::memchr(p, '=', itemEnd - p));
    if (eq == nullptr) {
      // Not a key=value item (an empty one included): kept as it came.
      other += '&';
      other.append(p, itemEnd - p);
    } else {
      const size_t keyLength = static_cast<size_t>(eq - p);
      const char* value = eq + 1;
      const size_t valueLength = static_cast<size_t>(itemEnd - value);
      if (KeyIs(p, keyLength, "p") || KeyIs(p, keyLength, "path")) {
        path_.set(value, valueLength, true);
        havePath = true;
      } else if (KeyIs(p, keyLength, "s") || KeyIs(p, keyLength, "suid")) {
        suid_.set(value, valueLength, true);
      } else if (KeyIs(p, keyLength, "v") || KeyIs(p, keyLength, "version")) {
        version_.set(value, valueLength, true);
      } else if (KeyIs(p, keyLength, "t")) {
        type_ =
            static_cast<unsigned>(ReadInt(CText(value, valueLength).c_str()));
      } else if (KeyIs(p, keyLength, "ts")) {
        timestamp_ = BDateTime(CText(value, valueLength).c_str());
        haveTimestamp = true;
      } else if (KeyIs(p, keyLength, "n")) {
        equivalenceValue_ = static_cast<ACE_UINT64>(
            ReadInt64(CText(value, valueLength).c_str()));
      } else if (KeyIs(p, keyLength, "gs")) {
        goldServerOverride_ = ReadInt(CText(value, valueLength).c_str()) != 0;
      } else if (KeyIs(p, keyLength, "pid")) {
        patientId_.set(value, valueLength, true);
      } else if (KeyIs(p, keyLength, "etag")) {
        etag_.set(value, valueLength, true);
        Kelvane::ToLowerCase(etag_);
      } else {
        other += '&';
        other.append(p, itemEnd - p);
      }
    }
    if (amp == nullptr) break;
    p = amp + 1;
  }
  if (!havePath || path_.length() == 0) throw BadlyFormedUrl(kMissingPath);
  host_ = ResolveHost(host);
  if (!haveTimestamp) timestamp_ = BDateTime::Now();
  otherParams_.set(other.data(), other.size(), true);
  const ACE_CString cut = StackUtils::extractStackPath(path_);
  if (cut.length() != path_.length()) path_ = cut;
}

void DTSStudyURL::Swap(DTSStudyURL& other) {
  url_.swap(other.url_);
  host_.swap(other.host_);
  path_.swap(other.path_);
  suid_.swap(other.suid_);
  std::swap(type_, other.type_);
  std::swap(equivalenceValue_, other.equivalenceValue_);
  otherParams_.swap(other.otherParams_);
  version_.swap(other.version_);
  std::swap(timestamp_, other.timestamp_);
  std::swap(goldServerOverride_, other.goldServerOverride_);
  patientId_.swap(other.patientId_);
  etag_.swap(other.etag_);
}

void DTSStudyURL::path(const ACE_CString& value) {
  generateURL(value, host_, suid_, type_, patientId_, equivalenceValue_,
              timestamp_, goldServerOverride_, etag_);
}

void DTSStudyURL::suid(const ACE_CString& value) {
  generateURL(path_, host_, value, type_, patientId_, equivalenceValue_,
              timestamp_, goldServerOverride_, etag_);
}

void DTSStudyURL::patientId(const ACE_CString& value) {
  generateURL(path_, host_, suid_, type_, value, equivalenceValue_, timestamp_,
              goldServerOverride_, etag_);
}

void DTSStudyURL::type(unsigned value) {
  generateURL(path_, host_, suid_, value, patientId_, equivalenceValue_,
              timestamp_, goldServerOverride_, etag_);
}

void DTSStudyURL::timestamp(const BDateTime& value) {
  generateURL(path_, host_, suid_, type_, patientId_, equivalenceValue_, value,
              goldServerOverride_, etag_);
}

void DTSStudyURL::host(const ACE_CString& value) {
  generateURL(path_, value, suid_, type_, patientId_, equivalenceValue_,
              timestamp_, goldServerOverride_, etag_);
}

void DTSStudyURL::ETAG(const ACE_CString& value) {
  generateURL(path_, host_, suid_, type_, patientId_, equivalenceValue_,
              timestamp_, goldServerOverride_, value);
}

void DTSStudyURL::equivalenceValue(ACE_UINT64 value) {
  generateURL(path_, host_, suid_, type_, patientId_, value, timestamp_,
              goldServerOverride_, etag_);
}

void DTSStudyURL::convertModuleTypeToString(ModuleType type, ACE_CString& out) {
  switch (static_cast<unsigned>(type)) {
    case VESTRA:
      out = "VESTRA";
      break;
    case DICOM_PROCESSING:
      out = "DICOM_PROCESSING";
      break;
    case ENTERPRISE_IMAGE_DISTRIBUTION:
      out = "ENTERPRISE_IMAGE_DISTRIBUTION";
      break;
    case CACHE:
      out = "CACHE";
      break;
    case ARCHIVE:
      out = "ARCHIVE";
      break;
    case CACHE_FILTER:
      out = "CACHE_FILTER";
      break;
    case ARCHIVE_MIRROR:
      out = "ARCHIVE_MIRROR";
      break;
    case INTEGRATION:
      out = "INTEGRATION";
      break;
    case INFRASTRUCTURE:
      out = "INFRASTRUCTURE";
      break;
    case SINGLE_SERVER_KORVEN:
      out = "SINGLE_SERVER_KORVEN";
      break;
    case UDM_STORAGE_SERVER:
      out = "UDM_STORAGE_SERVER";
      break;
    case UDM_APP_SERVER:
      out = "UDM_APP_SERVER";
      break;
    case UDM_PREP_STORAGE:
      out = "UDM_PREP_STORAGE";
      break;
    default:
      out = "UNSET";
      break;
  }
}

ACE_CString DTSStudyURL::ipaddress() const {
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  struct addrinfo* results = nullptr;
  if (::getaddrinfo(host_.c_str(), nullptr, &hints, &results) != 0) {
    throw BadlyFormedUrl(kUnresolvable);
  }
  ACE_CString address;
  for (const struct addrinfo* r = results; r != nullptr; r = r->ai_next) {
    if (r->ai_family != AF_INET && r->ai_family != AF_INET6) continue;
    char text[NI_MAXHOST];
    if (::getnameinfo(r->ai_addr, r->ai_addrlen, text, sizeof text, nullptr, 0,
                      NI_NUMERICHOST) == 0) {
      address = text;
    }
    break;
  }
  ::freeaddrinfo(results);
  return address;
}

// ------------------------------------------------------- copies of a study

namespace {

bool HasBits(const DTSStudyURL& location, unsigned mask) {
  return (location.type() & mask) != 0;
}

}  // namespace

unsigned long DTSStudyURL::checkForStudyOnModuleType(
    DTSStudyURL& found, ModuleType mask,
    const std::vector<DTSStudyURL>& locations) {
  unsigned long count = 0;
  for (const DTSStudyURL& location : locations) {
    if (!HasBits(location, static_cast<unsigned>(mask))) continue;
    if (count == 0) found = location;
    ++count;
  }
  return count;
}

bool DTSStudyURL::selectGoldLocation(
    DTSStudyURL& gold, const std::vector<DTSStudyURL>& locations) {
  // Long-term store, archive, caches, processing nodes: in this order.
  static const unsigned kPriority[] = {
      UDM_STORAGE_SERVER, ARCHIVE, CACHE_FILTER,
      UDM_APP_SERVER,     CACHE,   DICOM_PROCESSING};
  for (unsigned mask : kPriority) {
    for (const DTSStudyURL& location : locations) {
      if (HasBits(location, mask)) {
        gold = location;
        return true;
      }
    }
  }
  return false;
}

void DTSStudyURL::sortMergeLocations(LocationGroups& groups) {
  for (LocationGroup& group : groups) {
    if (group.get() == nullptr) continue;
    std::stable_partition(group->begin(), group->end(),
                          [](const DTSStudyURL& location) {
                            return HasBits(location, DICOM_PROCESSING);
                          });
  }
}

namespace {

// Appends one group per run of equal keys of an already sorted list.
template <typename SameKey>
size_t AppendRuns(const std::vector<const DTSStudyURL*>& sorted,
                  DTSStudyURL::LocationGroups& groups, SameKey same) {
  size_t formed = 0;
  for (size_t i = 0; i < sorted.size();) {
    DTSStudyURL::LocationGroup group(new std::vector<DTSStudyURL>());
    size_t j = i;
    while (j < sorted.size() && same(*sorted[i], *sorted[j])) {
      group->push_back(*sorted[j]);
      ++j;
    }
    groups.push_back(group);
    ++formed;
    i = j;
  }
  return formed;
}

}  // namespace

bool DTSStudyURL::detectMergeCondition(
    const std::vector<DTSStudyURL>& locations, LocationGroups& groups) {
  if (locations.size() < 2) return false;
  std::vector<const DTSStudyURL*> plain;
  std::vector<const DTSStudyURL*> tagged;
  for (const DTSStudyURL& location : locations) {
    (location.ETAG().length() == 0 ? plain : tagged).push_back(&location);
  }
  std::stable_sort(plain.begin(), plain.end(),
                   [](const DTSStudyURL* a, const DTSStudyURL* b) {
                     return a->equivalenceValue() < b->equivalenceValue();
                   });
  std::stable_sort(tagged.begin(), tagged.end(),
                   [](const DTSStudyURL* a, const DTSStudyURL* b) {
                     return std::strcmp(a->ETAG().c_str(), b->ETAG().c_str()) <
                            0;
                   });
  size_t formed =
      AppendRuns(plain, groups, [](const DTSStudyURL& a, const DTSStudyURL& b) {
        return a.equivalenceValue() == b.equivalenceValue();
      });
  formed += AppendRuns(tagged, groups,
                       [](const DTSStudyURL& a, const DTSStudyURL& b) {
                         return a.ETAG() == b.ETAG();
                       });
  sortMergeLocations(groups);
  return formed > 1;
}

bool DTSStudyURL::detectMergeCondition(
    std::vector<DTSStudyURL>& representatives,
    std::vector<DTSStudyURL>& locations) {
  representatives.clear();
  LocationGroups groups;
  const bool merge = detectMergeCondition(locations, groups);
  if (merge) {
    for (const LocationGroup& group : groups) {
      representatives.push_back(group->front());
    }
  }
  return merge;
}
