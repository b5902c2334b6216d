#include "common/base/base64coder.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>

#include "common/base/internal/base64kernels.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define COM_BASE64_X86 1
#endif

namespace Kelvane {
namespace internal {
namespace {

constexpr char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr unsigned char kPad = 64;  // value of '=' in kSymbolValue
constexpr unsigned char kInvalid = 0xFF;

constexpr std::array<unsigned char, 256> MakeSymbolValues() {
  std::array<unsigned char, 256> t{};
  for (auto& v : t) v = kInvalid;
  for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kAlphabet[i])] = i;
  t['='] = kPad;
  return t;
}
constexpr std::array<unsigned char, 256> kSymbolValue = MakeSymbolValues();

// Pre-shifted values for the four places of a clean group; anything that
// is not in the alphabet ('=' included) sets bits above 24.
constexpr std::array<uint32_t, 256> MakeGroupTable(int shift) {
  std::array<uint32_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    unsigned char v = kSymbolValue[c];
    t[c] = v < 64 ? static_cast<uint32_t>(v) << shift : 0xFF000000u;
  }
  return t;
}
constexpr std::array<uint32_t, 256> kGroup0 = MakeGroupTable(18);
constexpr std::array<uint32_t, 256> kGroup1 = MakeGroupTable(12);
constexpr std::array<uint32_t, 256> kGroup2 = MakeGroupTable(6);
constexpr std::array<uint32_t, 256> kGroup3 = MakeGroupTable(0);

// Two output characters per 12 input bits.
constexpr std::array<uint16_t, 4096> MakePairTable() {
  std::array<uint16_t, 4096> t{};
  for (int i = 0; i < 4096; ++i) {
    // Little-endian: the first character is the low byte.
    t[i] = static_cast<uint16_t>(
        static_cast<unsigned char>(kAlphabet[i >> 6]) |
        (static_cast<unsigned char>(kAlphabet[i & 63]) << 8));
  }
  return t;
}
constexpr std::array<uint16_t, 4096> kPairs = MakePairTable();

// Encodes the last 0, 1 or 2 bytes and the whole groups before them.
void EncodeScalar(const unsigned char* in, size_t n, char* out) {
  size_t i = 0;
  for (; i + 3 <= n; i += 3, out += 4) {
    uint32_t v =
        (uint32_t{in[i]} << 16) | (uint32_t{in[i + 1]} << 8) | in[i + 2];
    uint16_t hi = kPairs[v >> 12], lo = kPairs[v & 0xFFF];
    std::memcpy(out, &hi, 2);
    std::memcpy(out + 2, &lo, 2);
  }
  size_t rest = n - i;
  if (rest == 1) {
    out[0] = kAlphabet[in[i] >> 2];
    out[1] = kAlphabet[(in[i] & 3) << 4];
    out[2] = '=';
    out[3] = '=';
  } else if (rest == 2) {
    out[0] = kAlphabet[in[i] >> 2];
    out[1] = kAlphabet[((in[i] & 3) << 4) | (in[i + 1] >> 4)];
    out[2] = kAlphabet[(in[i + 1] & 15) << 2];
    out[3] = '=';
  }
}

// The symbol reader: skips bytes that are 32 or less as signed chars and
// stops at 0xFF as at the end.
struct SymbolReader {
  const unsigned char* p;
  const unsigned char* end;

  int Next() {
    while (p < end) {
      unsigned char c = *p++;
      if (c == 0xFF) {
        p = end;
        return -1;
      }
      if (static_cast<signed char>(c) > 32) return c;
    }
    return -1;
  }
};

enum GroupResult { kEnd, kFull, kPadded, kFail };

GroupResult ReadGroup(SymbolReader& r, unsigned char* out, size_t& o,
                      size_t capacity) {
  int s[4];
  s[0] = r.Next();
  if (s[0] < 0) return kEnd;
  for (int i = 1; i < 4; ++i) {
    s[i] = r.Next();
    if (s[i] < 0) return kFail;
  }
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) {
    unsigned char d = kSymbolValue[s[i]];
    if (d == kInvalid) return kFail;
    v = (v << 6) | (d == kPad ? 0 : d);
  }
  size_t n = s[2] == '=' ? 1 : s[3] == '=' ? 2 : 3;
  if (n > capacity - o) return kFail;
  out[o] = static_cast<unsigned char>(v >> 16);
  if (n > 1) out[o + 1] = static_cast<unsigned char>(v >> 8);
  if (n > 2) out[o + 2] = static_cast<unsigned char>(v);
  o += n;
  return n == 3 ? kFull : kPadded;
}

// Clean groups of four alphabet bytes, straight through the tables. Stops
// before the first group that holds anything else.
inline void CleanGroups(SymbolReader& r, unsigned char* out, size_t& o,
                        size_t capacity) {
  const unsigned char* p = r.p;
  while (r.end - p >= 4 && capacity - o >= 3) {
    uint32_t x = kGroup0[p[0]] | kGroup1[p[1]] | kGroup2[p[2]] | kGroup3[p[3]];
    if (x >> 24) break;
    out[o] = static_cast<unsigned char>(x >> 16);
    out[o + 1] = static_cast<unsigned char>(x >> 8);
    out[o + 2] = static_cast<unsigned char>(x);
    o += 3;
    p += 4;
  }
  r.p = p;
}

typedef void (*BulkFn)(SymbolReader& r, unsigned char* out, size_t& o,
                       size_t capacity);

void NoBulk(SymbolReader&, unsigned char*, size_t&, size_t) {}

size_t DecodeWith(BulkFn bulk, bool cleanGroups, const char* text,
                  size_t length, unsigned char* out, size_t capacity) {
  if (text == nullptr || length == 0) return 0;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  SymbolReader r{p, p + length};
  size_t o = 0;
  for (;;) {
    bulk(r, out, o, capacity);
    if (cleanGroups) CleanGroups(r, out, o, capacity);
    switch (ReadGroup(r, out, o, capacity)) {
      case kFull:
        continue;
      case kFail:
        return 0;
      case kEnd:
      case kPadded:
        return o;
    }
  }
}

#ifdef COM_BASE64_X86
// 24 bytes to 32 characters per step: each lane takes 12 bytes, spreads
// every 3 into 4 six-bit fields, and maps the fields to characters.
__attribute__((target("avx2"))) size_t EncodeAvx2Blocks(const unsigned char* in,
                                                        size_t n, char* out) {
  const __m256i shuffle =
      _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                       1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
  const __m256i offsets = _mm256_setr_epi8(
      65, 71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 0, 0,  //
      65, 71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 0, 0);
  size_t done = 0;
  // Each step reads 28 bytes (16 at +0, 16 at +12) and uses 24.
  while (n - done >= 28) {
    __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done));
    __m128i hi =
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done + 12));
    __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
    v = _mm256_shuffle_epi8(v, shuffle);
    __m256i t0 = _mm256_and_si256(v, _mm256_set1_epi32(0x0fc0fc00));
    __m256i t1 = _mm256_mulhi_epu16(t0, _mm256_set1_epi32(0x04000040));
    __m256i t2 = _mm256_and_si256(v, _mm256_set1_epi32(0x003f03f0));
    __m256i t3 = _mm256_mullo_epi16(t2, _mm256_set1_epi32(0x01000010));
    __m256i idx = _mm256_or_si256(t1, t3);  // 32 six-bit values
    __m256i sel = _mm256_subs_epu8(idx, _mm256_set1_epi8(51));
    sel = _mm256_sub_epi8(sel, _mm256_cmpgt_epi8(idx, _mm256_set1_epi8(25)));
    __m256i chars = _mm256_add_epi8(idx, _mm256_shuffle_epi8(offsets, sel));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), chars);
    done += 24;
    out += 32;
  }
  return done;
}

__attribute__((target("avx2"))) inline __m256i InRange(__m256i c, char lo,
                                                       char hi) {
  return _mm256_and_si256(_mm256_cmpgt_epi8(c, _mm256_set1_epi8(lo - 1)),
                          _mm256_cmpgt_epi8(_mm256_set1_epi8(hi + 1), c));
}

// 32 alphabet characters to 24 bytes per step, for as long as every byte
// of the block is in the alphabet and 32 bytes of room remain in `out`
// (the store writes 8 bytes past the 24 it keeps). Bytes 0x80-0xFF compare
// as negative and so fall outside every range.
__attribute__((target("avx2"))) void DecodeAvx2Blocks(SymbolReader& r,
                                                      unsigned char* out,
                                                      size_t& o,
                                                      size_t capacity) {
  const unsigned char* p = r.p;
  const __m256i pack = _mm256_setr_epi8(
      2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1,  //
      2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  while (r.end - p >= 32 && capacity - o >= 32) {
    __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    __m256i upper = InRange(c, 'A', 'Z');
    __m256i lower = InRange(c, 'a', 'z');
    __m256i digit = InRange(c, '0', '9');
    __m256i plus = _mm256_cmpeq_epi8(c, _mm256_set1_epi8('+'));
    __m256i slash = _mm256_cmpeq_epi8(c, _mm256_set1_epi8('/'));
    __m256i valid =
        _mm256_or_si256(_mm256_or_si256(upper, lower),
                        _mm256_or_si256(digit, _mm256_or_si256(plus, slash)));
    if (_mm256_movemask_epi8(valid) != -1) break;
    __m256i shift = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(upper, _mm256_set1_epi8(-65)),
                        _mm256_and_si256(lower, _mm256_set1_epi8(-71))),
        _mm256_or_si256(
            _mm256_and_si256(digit, _mm256_set1_epi8(4)),
            _mm256_or_si256(_mm256_and_si256(plus, _mm256_set1_epi8(19)),
                            _mm256_and_si256(slash, _mm256_set1_epi8(16)))));
    __m256i v = _mm256_add_epi8(c, shift);
    // aaaaaa bbbbbb -> 12 bits, then two of those -> 24 bits per dword.
    v = _mm256_maddubs_epi16(v, _mm256_set1_epi32(0x01400140));
    v = _mm256_madd_epi16(v, _mm256_set1_epi32(0x00011000));
    v = _mm256_shuffle_epi8(v, pack);
    v = _mm256_permutevar8x32_epi32(v,
                                    _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + o), v);
    o += 24;
    p += 32;
  }
  r.p = p;
}
#endif

}  // namespace

void Base64EncodePortable(const unsigned char* data, size_t length, char* out) {
  if (data == nullptr || length == 0) return;
  EncodeScalar(data, length, out);
}

bool Base64Avx2Available() {
#ifdef COM_BASE64_X86
  static const bool available = __builtin_cpu_supports("avx2");
  return available;
#else
  return false;
#endif
}

void Base64EncodeAvx2(const unsigned char* data, size_t length, char* out) {
  if (data == nullptr || length == 0) return;
  size_t done = 0;
#ifdef COM_BASE64_X86
  done = EncodeAvx2Blocks(data, length, out);
#endif
  EncodeScalar(data + done, length - done, out + done / 3 * 4);
}

void Base64Encode(const unsigned char* data, size_t length, char* out) {
  if (Base64Avx2Available()) {
    Base64EncodeAvx2(data, length, out);
  } else {
    Base64EncodePortable(data, length, out);
  }
}

size_t Base64DecodeReference(const char* text, size_t length,
                             unsigned char* out, size_t capacity) {
  return DecodeWith(NoBulk, false, text, length, out, capacity);
}

size_t Base64DecodePortable(const char* text, size_t length, unsigned char* out,
                            size_t capacity) {
  return DecodeWith(NoBulk, true, text, length, out, capacity);
}

size_t Base64DecodeAvx2(const char* text, size_t length, unsigned char* out,
                        size_t capacity) {
#ifdef COM_BASE64_X86
  return DecodeWith(DecodeAvx2Blocks, true, text, length, out, capacity);
#else
  return DecodeWith(NoBulk, true, text, length, out, capacity);
#endif
}

size_t Base64Decode(const char* text, size_t length, unsigned char* out,
                    size_t capacity) {
  return Base64Avx2Available()
             ? Base64DecodeAvx2(text, length, out, capacity)
             : Base64DecodePortable(text, length, out, capacity);
}

}  // namespace internal
}  // namespace Kelvane

Base64Coder::Base64Coder() {}

Base64Coder::~Base64Coder() {}

void Base64Coder::Encode(ACE_CString& out, const unsigned char* data,
                         unsigned length) {
  if (data == nullptr) length = 0;
  size_t chars = Kelvane::internal::Base64EncodedSize(length);
  std::unique_ptr<char[]> scratch(new char[chars + 1]);
  Kelvane::internal::Base64Encode(data, length, scratch.get());
  scratch[chars] = '\0';
  out.set(scratch.get(), chars, true);
}

Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> Base64Coder::Decode(
    const char* text, unsigned length, unsigned& decodedLength) {
  decodedLength = 0;
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buffer(new char[length]);
  if (text == nullptr || length == 0) return buffer;
  decodedLength = static_cast<unsigned>(Kelvane::internal::Base64Decode(
      text, length, reinterpret_cast<unsigned char*>(buffer.get()), length));
  return buffer;
}
