#include "common/base/uidgenerator.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <random>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/base/comlog.h"
#include "common/base/internal/sha512.h"
#include "common/base/internal/uidgenerator_internal.h"

namespace {

static_assert(std::atomic<uint32_t>::is_always_lock_free,
              "the UID counter must be a lock-free atomic");

// Process-wide state. The prefix and its length are written only by the
// initialisers, which publish them with a release store of g_initialized.
std::atomic<bool> g_initialized{false};
char g_prefix[UIDGenerator::kMaxUIDLength] = {0};
size_t g_prefix_len = 0;
std::atomic<uint32_t> g_counter{0};

// Room for the longest prefix, a signed 64-bit number, "." and a 32-bit one.
constexpr size_t kScratch = UIDGenerator::kMaxUIDLength + 20 + 1 + 10 + 1;

const char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324"
    "25262728293031323334353637383940414243444546474849"
    "50515253545556575859606162636465666768697071727374"
    "75767778798081828384858687888990919293949596979899";

// Writes v in decimal at p and returns the end.
char* PutDecimal(char* p, uint64_t v) {
  size_t digits = 1;
  for (uint64_t t = v; t >= 10; t /= 10) ++digits;
  char* end = p + digits;
  char* q = end;
  while (v >= 100) {
    const unsigned pair = static_cast<unsigned>(v % 100) * 2;
    v /= 100;
    *--q = kDigitPairs[pair + 1];
    *--q = kDigitPairs[pair];
  }
  if (v >= 10) {
    const unsigned pair = static_cast<unsigned>(v) * 2;
    *--q = kDigitPairs[pair + 1];
    *--q = kDigitPairs[pair];
  } else {
    *--q = static_cast<char>('0' + v);
  }
  return end;
}

// The counter after increment, never 0.
uint32_t NextCounter() {
  uint32_t n = g_counter.fetch_add(1, std::memory_order_relaxed) + 1;
  if (n == 0) n = g_counter.fetch_add(1, std::memory_order_relaxed) + 1;
  return n;
}

// prefix = "<root>.<method>.<first>.<second>.<pid>." cut at 63 characters.
void SetPrefix(const char* root, int method, uint32_t first, uint32_t second,
               int pid) {
  int n = std::snprintf(
      g_prefix, sizeof g_prefix, "%s.%d.%d.%d.%d.", root == nullptr ? "" : root,
      method, static_cast<int32_t>(first), static_cast<int32_t>(second), pid);
  if (n < 0) n = 0;
  g_prefix_len = static_cast<size_t>(n) < sizeof g_prefix
                     ? static_cast<size_t>(n)
                     : sizeof g_prefix - 1;
  g_initialized.store(true, std::memory_order_release);
}

// Fills `buf` with the UID text and returns its length (which may exceed
// kMaxUIDLength; the caller checks).
size_t FormatUID(char* buf) {
  const int64_t t = static_cast<int64_t>(std::time(nullptr));
  const uint32_t n = NextCounter();
  std::memcpy(buf, g_prefix, g_prefix_len);
  char* p = buf + g_prefix_len;
  if (t < 0) {
    *p++ = '-';
    p = PutDecimal(p, 0 - static_cast<uint64_t>(t));
  } else {
    p = PutDecimal(p, static_cast<uint64_t>(t));
  }
  *p++ = '.';
  p = PutDecimal(p, n);
  return static_cast<size_t>(p - buf);
}

[[noreturn]] void TooLong(const char* buf, int line) {
  char partial[UIDGenerator::kMaxUIDLength + 1];
  std::memcpy(partial, buf, UIDGenerator::kMaxUIDLength);
  partial[UIDGenerator::kMaxUIDLength] = '\0';
  COM_LOG((LM_ERROR, "Function: %s, Line: %d, %s - %s\n",
           "UIDGenerator::GenerateUID", line, UIDGenerator::kTooLongMessage,
           partial));
  throw UIDGeneratorException(UIDGenerator::kTooLongMessage);
}

}  // namespace

namespace uidgenerator_internal {

bool PickHardwareNumbers(const std::vector<Adapter>& adapters, uint32_t* first,
                         uint32_t* second) {
  *first = 0;
  *second = 0;
  for (const Adapter& a : adapters) {
    if (a.address.size() != 6) continue;
    const unsigned char* b = a.address.data();
    *first = (uint32_t{b[0]} << 16) | (uint32_t{b[1]} << 8) | b[2];
    *second = (uint32_t{b[3]} << 16) | (uint32_t{b[4]} << 8) | b[5];
    if (*first != 0 || *second != 0) break;
  }
  return *first != 0 && *second != 0;
}

int ReadAdapters(std::vector<Adapter>* adapters) {
  adapters->clear();
  struct ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return -1;
  for (struct ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_PACKET) {
      continue;
    }
    const struct sockaddr_ll* ll =
        reinterpret_cast<const struct sockaddr_ll*>(i->ifa_addr);
    size_t len = ll->sll_halen;
    if (len > sizeof ll->sll_addr) len = sizeof ll->sll_addr;
    Adapter a;
    a.name = i->ifa_name == nullptr ? "" : i->ifa_name;
    a.address.assign(ll->sll_addr, ll->sll_addr + len);
    adapters->push_back(a);
  }
  ::freeifaddrs(list);
  return 0;
}

void ResetForTest(uint32_t counter) {
  g_initialized.store(false, std::memory_order_release);
  g_prefix[0] = '\0';
  g_prefix_len = 0;
  g_counter.store(counter, std::memory_order_relaxed);
}

}  // namespace uidgenerator_internal

constexpr const char UIDGenerator::kTooLongMessage[];

bool UIDGenerator::InitializeMAC(const char* root) {
  if (IsInitialized()) return true;
  std::vector<uidgenerator_internal::Adapter> adapters;
  if (uidgenerator_internal::ReadAdapters(&adapters) != 0) return false;
  uint32_t first = 0;
  uint32_t second = 0;
  if (!uidgenerator_internal::PickHardwareNumbers(adapters, &first, &second)) {
    return false;
  }
  const int pid = static_cast<int>(::getpid());
  if (pid == 0) return false;
  SetPrefix(root, 1, first, second, pid);
  return true;
}

bool UIDGenerator::InitializeAlternate(unsigned long first,
                                       unsigned long second, const char* root) {
  const int pid = static_cast<int>(::getpid());
  if (pid == 0) return false;
  SetPrefix(root, 2, static_cast<uint32_t>(first),
            static_cast<uint32_t>(second), pid);
  return true;
}

bool UIDGenerator::IsInitialized() {
  return g_initialized.load(std::memory_order_acquire);
}

void UIDGenerator::GenerateUID(ACE_String_Base<char>& out) {
  if (!IsInitialized()) throw std::exception();
  char buf[kScratch];
  const size_t len = FormatUID(buf);
  if (len > static_cast<size_t>(kMaxUIDLength)) TooLong(buf, __LINE__);
  out.set(buf, static_cast<ACE_String_Base<char>::size_type>(len), true);
}

ACE_String_Base<char> UIDGenerator::GenerateUID() {
  if (!IsInitialized()) throw std::exception();
  char buf[kScratch];
  const size_t len = FormatUID(buf);
  if (len > static_cast<size_t>(kMaxUIDLength)) TooLong(buf, __LINE__);
  return ACE_String_Base<char>(
      buf, static_cast<ACE_String_Base<char>::size_type>(len));
}

namespace {

// Writes the big-endian number in limbs[0..n) (32 bits each; destroyed) in
// decimal at out and returns the digit count. out needs 10 * n + 1 bytes.
size_t BigDecimal(uint32_t* limbs, size_t n, char* out) {
  char rev[10 * 16 + 10];
  size_t len = 0;
  size_t top = 0;
  while (top < n && limbs[top] == 0) ++top;
  while (top < n) {
    // Divide by 10^9 and keep the remainder as nine digits.
    uint64_t rem = 0;
    for (size_t i = top; i < n; ++i) {
      uint64_t const cur = (rem << 32) | limbs[i];
      limbs[i] = static_cast<uint32_t>(cur / 1000000000u);
      rem = cur % 1000000000u;
    }
    while (top < n && limbs[top] == 0) ++top;
    for (int d = 0; d < 9 && (top < n || rem != 0); ++d) {
      rev[len++] = static_cast<char>('0' + rem % 10);
      rem /= 10;
    }
  }
  if (len == 0) rev[len++] = '0';
  for (size_t i = 0; i < len; ++i) out[i] = rev[len - 1 - i];
  return len;
}

inline int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads the UUID forms FromUUID accepts into four big-endian limbs.
bool ReadUUID(const char* p, size_t n, uint32_t limbs[4]) {
  static const char kUrn[] = "urn:uuid:";
  if (n >= 9 && std::strncmp(p, kUrn, 9) == 0) {
    p += 9;
    n -= 9;
  }
  if (n >= 2 && p[0] == '{' && p[n - 1] == '}') {
    ++p;
    n -= 2;
  }
  bool const hyphens = n == 36;
  if (!hyphens && n != 32) return false;
  limbs[0] = limbs[1] = limbs[2] = limbs[3] = 0;
  int digit = 0;
  for (size_t i = 0; i < n; ++i) {
    if (hyphens && (i == 8 || i == 13 || i == 18 || i == 23)) {
      if (p[i] != '-') return false;
      continue;
    }
    int const v = HexValue(p[i]);
    if (v < 0) return false;
    limbs[digit / 8] = (limbs[digit / 8] << 4) | static_cast<uint32_t>(v);
    ++digit;
  }
  return true;
}

ACE_CString UUIDToUID(uint32_t limbs[4]) {
  char buf[5 + 40 + 1] = "2.25.";
  size_t const len = 5 + BigDecimal(limbs, 4, buf + 5);
  buf[len] = 0;
  return ACE_CString(buf);
}

// A UID prefix: valid components, each followed by a dot.
bool IsPrefix(const char* p, size_t n) {
  if (n == 0 || n > static_cast<size_t>(UIDGenerator::kMaxUIDLength - 1) ||
      p[n - 1] != '.') {
    return false;
  }
  return UIDGenerator::IsValid(ACE_CString(p, n - 1));
}

}  // namespace

bool UIDGenerator::IsValid(const ACE_CString& uid) {
  size_t const n = uid.length();
  if (n == 0 || n > static_cast<size_t>(kMaxUIDLength)) return false;
  const char* const p = uid.c_str();
  size_t start = 0;  // first character of the current component
  for (size_t i = 0; i <= n; ++i) {
    if (i == n || p[i] == '.') {
      size_t const len = i - start;
      if (len == 0 || (len > 1 && p[start] == '0')) return false;
      start = i + 1;
    } else if (p[i] < '0' || p[i] > '9') {
      return false;
    }
  }
  return true;
}

ACE_CString UIDGenerator::FromUUID(const ACE_CString& uuid) {
  uint32_t limbs[4];
  if (!ReadUUID(uuid.c_str(), uuid.length(), limbs)) return ACE_CString();
  return UUIDToUID(limbs);
}

ACE_CString UIDGenerator::GenerateUUIDUID() {
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof bytes) {
    ssize_t const r = getrandom(bytes + got, sizeof bytes - got, 0);
    if (r > 0) {
      got += static_cast<size_t>(r);
    } else if (r < 0 && errno != EINTR) {
      break;
    }
  }
  if (got < sizeof bytes) {
    // No getrandom (old kernel, seccomp): the library's random device.
    std::random_device rd;
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(rd());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // v4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC
  uint32_t limbs[4];
  for (int i = 0; i < 4; ++i) {
    limbs[i] = static_cast<uint32_t>(bytes[4 * i]) << 24 |
               static_cast<uint32_t>(bytes[4 * i + 1]) << 16 |
               static_cast<uint32_t>(bytes[4 * i + 2]) << 8 | bytes[4 * i + 3];
  }
  return UUIDToUID(limbs);
}

ACE_CString UIDGenerator::Remap(const ACE_CString& prefix,
                                const ACE_CString& uid,
                                const ACE_CString& salt) {
  if (!IsPrefix(prefix.c_str(), prefix.length())) return ACE_CString();
  ACE_CString joined(uid);
  joined += salt;
  unsigned char digest[Kelvane::internal::kSha512DigestSize];
  Kelvane::internal::Sha512(joined.c_str(), joined.length(), digest);
  uint32_t limbs[16];
  for (int i = 0; i < 16; ++i) {
    limbs[i] = static_cast<uint32_t>(digest[4 * i]) << 24 |
               static_cast<uint32_t>(digest[4 * i + 1]) << 16 |
               static_cast<uint32_t>(digest[4 * i + 2]) << 8 |
               digest[4 * i + 3];
  }
  char digits[10 * 16 + 1];
  size_t const len = BigDecimal(limbs, 16, digits);
  size_t const room = static_cast<size_t>(kMaxUIDLength) - prefix.length();
  ACE_CString out(prefix);
  out += ACE_CString(digits, len < room ? len : room);
  return out;
}
