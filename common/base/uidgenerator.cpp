#include "common/base/uidgenerator.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/base/comlog.h"
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
