#include "common/base/crc32.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>

#include <ace/Mem_Map.h>

#include "common/base/internal/crc32kernels.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define COM_CRC32_X86 1
#endif

namespace Kelvane {
namespace internal {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u;

typedef std::array<std::array<uint32_t, 256>, 8> SliceTables;

constexpr SliceTables MakeTables() {
  SliceTables t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
    t[0][i] = c;
  }
  for (uint32_t i = 0; i < 256; ++i) {
    for (int s = 1; s < 8; ++s) {
      uint32_t prev = t[s - 1][i];
      t[s][i] = (prev >> 8) ^ t[0][prev & 0xFF];
    }
  }
  return t;
}

constexpr SliceTables kTables = MakeTables();

// Works on the inverted register, as every kernel below does.
uint32_t SliceBy8(uint32_t c, const unsigned char* p, size_t n) {
  while (n >= 8) {
    uint32_t lo, hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + 4, 4);
    lo ^= c;  // little-endian byte order assumed, as on every target we build
    c = kTables[7][lo & 0xFF] ^ kTables[6][(lo >> 8) & 0xFF] ^
        kTables[5][(lo >> 16) & 0xFF] ^ kTables[4][lo >> 24] ^
        kTables[3][hi & 0xFF] ^ kTables[2][(hi >> 8) & 0xFF] ^
        kTables[1][(hi >> 16) & 0xFF] ^ kTables[0][hi >> 24];
    p += 8;
    n -= 8;
  }
  while (n--) c = (c >> 8) ^ kTables[0][(c ^ *p++) & 0xFF];
  return c;
}

#ifdef COM_CRC32_X86
// Folds 64-byte blocks four lanes at a time with carry-less multiplies,
// then reduces to 32 bits (Barrett). The constants are x^k mod P for the
// reflected polynomial. `n` is a multiple of 16 and at least 64.
__attribute__((target("pclmul,sse4.1"))) uint32_t Fold(uint32_t c,
                                                       const unsigned char* p,
                                                       size_t n) {
  const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);
  const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);
  const __m128i k5k0 = _mm_set_epi64x(0, 0x0163cd6124);
  const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);

  __m128i x1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  __m128i x2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
  __m128i x3 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32));
  __m128i x4 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48));
  x1 = _mm_xor_si128(x1, _mm_cvtsi32_si128(static_cast<int>(c)));
  p += 64;
  n -= 64;

  while (n >= 64) {
    __m128i x5 = _mm_clmulepi64_si128(x1, k1k2, 0x00);
    __m128i x6 = _mm_clmulepi64_si128(x2, k1k2, 0x00);
    __m128i x7 = _mm_clmulepi64_si128(x3, k1k2, 0x00);
    __m128i x8 = _mm_clmulepi64_si128(x4, k1k2, 0x00);
    x1 = _mm_clmulepi64_si128(x1, k1k2, 0x11);
    x2 = _mm_clmulepi64_si128(x2, k1k2, 0x11);
    x3 = _mm_clmulepi64_si128(x3, k1k2, 0x11);
    x4 = _mm_clmulepi64_si128(x4, k1k2, 0x11);
    x1 = _mm_xor_si128(_mm_xor_si128(x1, x5),
                       _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    x2 = _mm_xor_si128(
        _mm_xor_si128(x2, x6),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)));
    x3 = _mm_xor_si128(
        _mm_xor_si128(x3, x7),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)));
    x4 = _mm_xor_si128(
        _mm_xor_si128(x4, x8),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)));
    p += 64;
    n -= 64;
  }

  // Four lanes into one.
  __m128i x5 = _mm_clmulepi64_si128(x1, k3k4, 0x00);
  x1 = _mm_clmulepi64_si128(x1, k3k4, 0x11);
  x1 = _mm_xor_si128(_mm_xor_si128(x1, x2), x5);
  x5 = _mm_clmulepi64_si128(x1, k3k4, 0x00);
  x1 = _mm_clmulepi64_si128(x1, k3k4, 0x11);
  x1 = _mm_xor_si128(_mm_xor_si128(x1, x3), x5);
  x5 = _mm_clmulepi64_si128(x1, k3k4, 0x00);
  x1 = _mm_clmulepi64_si128(x1, k3k4, 0x11);
  x1 = _mm_xor_si128(_mm_xor_si128(x1, x4), x5);

  while (n >= 16) {
    x2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    x5 = _mm_clmulepi64_si128(x1, k3k4, 0x00);
    x1 = _mm_clmulepi64_si128(x1, k3k4, 0x11);
    x1 = _mm_xor_si128(_mm_xor_si128(x1, x2), x5);
    p += 16;
    n -= 16;
  }

  // 128 bits to 64.
  const __m128i mask32 = _mm_setr_epi32(~0, 0, ~0, 0);
  x2 = _mm_clmulepi64_si128(x1, k3k4, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2);
  x2 = _mm_srli_si128(x1, 4);
  x1 = _mm_and_si128(x1, mask32);
  x1 = _mm_clmulepi64_si128(x1, k5k0, 0x00);
  x1 = _mm_xor_si128(x1, x2);

  // Barrett reduction to 32 bits.
  x2 = _mm_and_si128(x1, mask32);
  x2 = _mm_clmulepi64_si128(x2, poly, 0x10);
  x2 = _mm_and_si128(x2, mask32);
  x2 = _mm_clmulepi64_si128(x2, poly, 0x00);
  x1 = _mm_xor_si128(x1, x2);
  return static_cast<uint32_t>(_mm_extract_epi32(x1, 1));
}
#endif

}  // namespace

uint32_t Crc32Portable(uint32_t crc, const void* data, size_t length) {
  if (data == nullptr || length == 0) return crc;
  return ~SliceBy8(~crc, static_cast<const unsigned char*>(data), length);
}

bool Crc32ClmulAvailable() {
#ifdef COM_CRC32_X86
  static const bool available =
      __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return available;
#else
  return false;
#endif
}

uint32_t Crc32Clmul(uint32_t crc, const void* data, size_t length) {
  if (data == nullptr || length == 0) return crc;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  uint32_t c = ~crc;
#ifdef COM_CRC32_X86
  if (length >= 64) {
    size_t folded = length & ~static_cast<size_t>(15);
    c = Fold(c, p, folded);
    p += folded;
    length -= folded;
  }
#endif
  return ~SliceBy8(c, p, length);
}

uint32_t Crc32(uint32_t crc, const void* data, size_t length) {
  return Crc32ClmulAvailable() ? Crc32Clmul(crc, data, length)
                               : Crc32Portable(crc, data, length);
}

}  // namespace internal

int CalculateCRC32(const ACE_CString& path, unsigned long& crc) {
  crc = 0;
  ACE_Mem_Map map;
  if (map.map(path.c_str(), static_cast<size_t>(-1), O_RDWR | O_CREAT,
              ACE_DEFAULT_FILE_PERMS, PROT_READ | PROT_WRITE,
              MAP_SHARED) == 0) {
    crc = internal::Crc32(0, map.addr(), map.size());
    map.unmap();
  }
  return 0;
}

}  // namespace Kelvane
