#include "common/base/sha256.h"

#include <cstring>

#include "common/base/internal/sha256kernels.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#define COM_SHA256_X86 1
#endif

namespace Kelvane {
namespace internal {
namespace {

alignas(64) constexpr uint32_t kRoundConstants[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1,
    0x923f82a4, 0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3,
    0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786,
    0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147,
    0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13,
    0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
    0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a,
    0x5b9cca4f, 0x682e6ff3, 0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208,
    0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr uint32_t kInitialState[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372,
                                       0xa54ff53a, 0x510e527f, 0x9b05688c,
                                       0x1f83d9ab, 0x5be0cd19};

typedef void (*BlockFn)(uint32_t state[8], const unsigned char* p,
                        size_t blocks);

inline uint32_t Rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

inline uint32_t LoadBE(const unsigned char* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return __builtin_bswap32(v);
}

// The standard transform, written out round by round. The message schedule
// is kept in a 16-word ring and extended on the fly.
void BlocksPortable(uint32_t state[8], const unsigned char* p, size_t blocks) {
#define COM_SHA_S0(x) (Rotr(x, 2) ^ Rotr(x, 13) ^ Rotr(x, 22))
#define COM_SHA_S1(x) (Rotr(x, 6) ^ Rotr(x, 11) ^ Rotr(x, 25))
#define COM_SHA_G0(x) (Rotr(x, 7) ^ Rotr(x, 18) ^ ((x) >> 3))
#define COM_SHA_G1(x) (Rotr(x, 17) ^ Rotr(x, 19) ^ ((x) >> 10))
#define COM_SHA_CH(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define COM_SHA_MAJ(x, y, z) (((x) & (y)) | ((z) & ((x) | (y))))
#define COM_SHA_ROUND(a, b, c, d, e, f, g, h, i, wi)                         \
  do {                                                                       \
    uint32_t t1 =                                                            \
        h + COM_SHA_S1(e) + COM_SHA_CH(e, f, g) + kRoundConstants[i] + (wi); \
    uint32_t t2 = COM_SHA_S0(a) + COM_SHA_MAJ(a, b, c);                      \
    d += t1;                                                                 \
    h = t1 + t2;                                                             \
  } while (0)
#define COM_SHA_W(i)                                            \
  (w[(i)&15] += COM_SHA_G1(w[((i)-2) & 15]) + w[((i)-7) & 15] + \
                COM_SHA_G0(w[((i)-15) & 15]))
#define COM_SHA_EIGHT_LOAD(i)                             \
  COM_SHA_ROUND(a, b, c, d, e, f, g, h, i, w[i]);         \
  COM_SHA_ROUND(h, a, b, c, d, e, f, g, i + 1, w[i + 1]); \
  COM_SHA_ROUND(g, h, a, b, c, d, e, f, i + 2, w[i + 2]); \
  COM_SHA_ROUND(f, g, h, a, b, c, d, e, i + 3, w[i + 3]); \
  COM_SHA_ROUND(e, f, g, h, a, b, c, d, i + 4, w[i + 4]); \
  COM_SHA_ROUND(d, e, f, g, h, a, b, c, i + 5, w[i + 5]); \
  COM_SHA_ROUND(c, d, e, f, g, h, a, b, i + 6, w[i + 6]); \
  COM_SHA_ROUND(b, c, d, e, f, g, h, a, i + 7, w[i + 7])
#define COM_SHA_EIGHT(i)                                          \
  COM_SHA_ROUND(a, b, c, d, e, f, g, h, i, COM_SHA_W(i));         \
  COM_SHA_ROUND(h, a, b, c, d, e, f, g, i + 1, COM_SHA_W(i + 1)); \
  COM_SHA_ROUND(g, h, a, b, c, d, e, f, i + 2, COM_SHA_W(i + 2)); \
  COM_SHA_ROUND(f, g, h, a, b, c, d, e, i + 3, COM_SHA_W(i + 3)); \
  COM_SHA_ROUND(e, f, g, h, a, b, c, d, i + 4, COM_SHA_W(i + 4)); \
  COM_SHA_ROUND(d, e, f, g, h, a, b, c, i + 5, COM_SHA_W(i + 5)); \
  COM_SHA_ROUND(c, d, e, f, g, h, a, b, i + 6, COM_SHA_W(i + 6)); \
  COM_SHA_ROUND(b, c, d, e, f, g, h, a, i + 7, COM_SHA_W(i + 7))

  while (blocks--) {
    uint32_t w[16];
    for (int i = 0; i < 16; ++i) w[i] = LoadBE(p + 4 * i);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    COM_SHA_EIGHT_LOAD(0);
    COM_SHA_EIGHT_LOAD(8);
    COM_SHA_EIGHT(16);
    COM_SHA_EIGHT(24);
    COM_SHA_EIGHT(32);
    COM_SHA_EIGHT(40);
    COM_SHA_EIGHT(48);
    COM_SHA_EIGHT(56);
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
    p += 64;
  }
#undef COM_SHA_EIGHT
#undef COM_SHA_EIGHT_LOAD
#undef COM_SHA_W
#undef COM_SHA_ROUND
#undef COM_SHA_MAJ
#undef COM_SHA_CH
#undef COM_SHA_G1
#undef COM_SHA_G0
#undef COM_SHA_S1
#undef COM_SHA_S0
}

#ifdef COM_SHA256_X86
// The transform on the SHA extensions. The state lives in two registers in
// the instructions' ABEF/CDGH order; four message registers rotate through
// the schedule. Each step j does rounds 4j..4j+3.
__attribute__((target("sha,sse4.1,ssse3"))) void BlocksShaNi(
    uint32_t state[8], const unsigned char* p, size_t blocks) {
  const __m128i kByteSwap =
      _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
  __m128i tmp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state));
  __m128i state1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4));
  tmp = _mm_shuffle_epi32(tmp, 0xB1);                // CDAB
  state1 = _mm_shuffle_epi32(state1, 0x1B);          // EFGH
  __m128i state0 = _mm_alignr_epi8(tmp, state1, 8);  // ABEF
  state1 = _mm_blend_epi16(state1, tmp, 0xF0);       // CDGH

  while (blocks--) {
    const __m128i save0 = state0;
    const __m128i save1 = state1;
    __m128i m[4];
#pragma GCC unroll 16
    for (int j = 0; j < 16; ++j) {
      if (j < 4) {
        m[j] = _mm_shuffle_epi8(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * j)),
            kByteSwap);
      }
      __m128i msg = _mm_add_epi32(
          m[j & 3], _mm_load_si128(reinterpret_cast<const __m128i*>(
                        kRoundConstants + 4 * j)));
      state1 = _mm_sha256rnds2_epu32(state1, state0, msg);
      if (j >= 3 && j <= 14) {
        __m128i next = _mm_add_epi32(
            m[(j + 1) & 3], _mm_alignr_epi8(m[j & 3], m[(j + 3) & 3], 4));
        m[(j + 1) & 3] = _mm_sha256msg2_epu32(next, m[j & 3]);
      }
      msg = _mm_shuffle_epi32(msg, 0x0E);
      state0 = _mm_sha256rnds2_epu32(state0, state1, msg);
      if (j >= 1 && j <= 12) {
        m[(j + 3) & 3] = _mm_sha256msg1_epu32(m[(j + 3) & 3], m[j & 3]);
      }
    }
    state0 = _mm_add_epi32(state0, save0);
    state1 = _mm_add_epi32(state1, save1);
    p += 64;
  }

  tmp = _mm_shuffle_epi32(state0, 0x1B);        // FEBA
  state1 = _mm_shuffle_epi32(state1, 0xB1);     // DCHG
  state0 = _mm_blend_epi16(tmp, state1, 0xF0);  // DCBA
  state1 = _mm_alignr_epi8(state1, tmp, 8);     // ABEF
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), state0);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), state1);
}
#endif

// Whole blocks straight from the input, then one or two padded blocks.
void Digest(BlockFn blocks, const void* data, size_t length,
            unsigned char digest[kSha256DigestSize]) {
  uint32_t state[8];
  std::memcpy(state, kInitialState, sizeof state);
  const unsigned char* p = static_cast<const unsigned char*>(data);
  size_t whole = length / 64;
  if (whole != 0) blocks(state, p, whole);
  size_t rest = length % 64;
  unsigned char tail[128] = {};
  if (rest != 0) std::memcpy(tail, p + whole * 64, rest);
  tail[rest] = 0x80;
  size_t tailBlocks = rest < 56 ? 1 : 2;
  uint64_t bits = static_cast<uint64_t>(length) * 8;
  for (int i = 0; i < 8; ++i) {
    tail[tailBlocks * 64 - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
  }
  blocks(state, tail, tailBlocks);
  for (int i = 0; i < 8; ++i) {
    uint32_t v = __builtin_bswap32(state[i]);
    std::memcpy(digest + 4 * i, &v, 4);
  }
}

}  // namespace

void Sha256Portable(const void* data, size_t length,
                    unsigned char digest[kSha256DigestSize]) {
  Digest(BlocksPortable, data, length, digest);
}

bool Sha256ShaNiAvailable() {
#ifdef COM_SHA256_X86
  static const bool available = [] {
    unsigned eax, ebx, ecx, edx;
    if (!__builtin_cpu_supports("sse4.1") || !__builtin_cpu_supports("ssse3"))
      return false;
    if (__get_cpuid_max(0, nullptr) < 7) return false;
    __cpuid_count(7, 0, eax, ebx, ecx, edx);
    return (ebx & (1u << 29)) != 0;  // CPUID.7.0:EBX.SHA
  }();
  return available;
#else
  return false;
#endif
}

void Sha256ShaNi(const void* data, size_t length,
                 unsigned char digest[kSha256DigestSize]) {
#ifdef COM_SHA256_X86
  Digest(BlocksShaNi, data, length, digest);
#else
  Digest(BlocksPortable, data, length, digest);
#endif
}

void Sha256(const void* data, size_t length,
            unsigned char digest[kSha256DigestSize]) {
  Digest(
#ifdef COM_SHA256_X86
      Sha256ShaNiAvailable() ? BlocksShaNi :
#endif
                             BlocksPortable,
      data, length, digest);
}

}  // namespace internal

ACE_CString SHA256::GetHash(unsigned char* data, unsigned long length) {
  if (data == nullptr || length == 0) return ACE_CString();
  unsigned char digest[internal::kSha256DigestSize];
  internal::Sha256(data, length, digest);
  static const char kDigits[] = "0123456789abcdef";
  char hex[2 * internal::kSha256DigestSize];
  for (size_t i = 0; i < internal::kSha256DigestSize; ++i) {
    hex[2 * i] = kDigits[digest[i] >> 4];
    hex[2 * i + 1] = kDigits[digest[i] & 0x0F];
  }
  return ACE_CString(hex, sizeof hex);
}

}  // namespace Kelvane
