#include "common/base/md5wrapper.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>

#include "common/base/internal/md5kernels.h"

namespace Kelvane {
namespace internal {
namespace {

inline uint32_t Rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// The four rounds written out step by step. F and G use the forms with one
// fewer dependent operation on the previous step's result; G is computed
// as a sum of two disjoint masks so both halves issue in parallel.
void Compress(uint32_t state[4], const unsigned char* p, size_t blocks) {
#define COM_MD5_F(b, c, d) ((d) ^ ((b) & ((c) ^ (d))))
#define COM_MD5_H(b, c, d) ((b) ^ (c) ^ (d))
#define COM_MD5_I(b, c, d) ((c) ^ ((b) | ~(d)))
#define COM_MD5_STEP(f, a, b, c, d, x, s, t) \
  a += f(b, c, d) + (x) + (t);               \
  a = Rotl(a, s) + (b)
#define COM_MD5_GSTEP(a, b, c, d, x, s, t)     \
  a += (x) + (t) + ((d) & (b)) + (~(d) & (c)); \
  a = Rotl(a, s) + (b)

  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  while (blocks--) {
    uint32_t x[16];
    std::memcpy(x, p, 64);  // little-endian words
    const uint32_t sa = a, sb = b, sc = c, sd = d;

    COM_MD5_STEP(COM_MD5_F, a, b, c, d, x[0], 7, 0xd76aa478);
    COM_MD5_STEP(COM_MD5_F, d, a, b, c, x[1], 12, 0xe8c7b756);
    COM_MD5_STEP(COM_MD5_F, c, d, a, b, x[2], 17, 0x242070db);
    COM_MD5_STEP(COM_MD5_F, b, c, d, a, x[3], 22, 0xc1bdceee);
    COM_MD5_STEP(COM_MD5_F, a, b, c, d, x[4], 7, 0xf57c0faf);
    COM_MD5_STEP(COM_MD5_F, d, a, b, c, x[5], 12, 0x4787c62a);
    COM_MD5_STEP(COM_MD5_F, c, d, a, b, x[6], 17, 0xa8304613);
    COM_MD5_STEP(COM_MD5_F, b, c, d, a, x[7], 22, 0xfd469501);
    COM_MD5_STEP(COM_MD5_F, a, b, c, d, x[8], 7, 0x698098d8);
    COM_MD5_STEP(COM_MD5_F, d, a, b, c, x[9], 12, 0x8b44f7af);
    COM_MD5_STEP(COM_MD5_F, c, d, a, b, x[10], 17, 0xffff5bb1);
    COM_MD5_STEP(COM_MD5_F, b, c, d, a, x[11], 22, 0x895cd7be);
    COM_MD5_STEP(COM_MD5_F, a, b, c, d, x[12], 7, 0x6b901122);
    COM_MD5_STEP(COM_MD5_F, d, a, b, c, x[13], 12, 0xfd987193);
    COM_MD5_STEP(COM_MD5_F, c, d, a, b, x[14], 17, 0xa679438e);
    COM_MD5_STEP(COM_MD5_F, b, c, d, a, x[15], 22, 0x49b40821);

    COM_MD5_GSTEP(a, b, c, d, x[1], 5, 0xf61e2562);
    COM_MD5_GSTEP(d, a, b, c, x[6], 9, 0xc040b340);
    COM_MD5_GSTEP(c, d, a, b, x[11], 14, 0x265e5a51);
    COM_MD5_GSTEP(b, c, d, a, x[0], 20, 0xe9b6c7aa);
    COM_MD5_GSTEP(a, b, c, d, x[5], 5, 0xd62f105d);
    COM_MD5_GSTEP(d, a, b, c, x[10], 9, 0x02441453);
    COM_MD5_GSTEP(c, d, a, b, x[15], 14, 0xd8a1e681);
    COM_MD5_GSTEP(b, c, d, a, x[4], 20, 0xe7d3fbc8);
    COM_MD5_GSTEP(a, b, c, d, x[9], 5, 0x21e1cde6);
    COM_MD5_GSTEP(d, a, b, c, x[14], 9, 0xc33707d6);
    COM_MD5_GSTEP(c, d, a, b, x[3], 14, 0xf4d50d87);
    COM_MD5_GSTEP(b, c, d, a, x[8], 20, 0x455a14ed);
    COM_MD5_GSTEP(a, b, c, d, x[13], 5, 0xa9e3e905);
    COM_MD5_GSTEP(d, a, b, c, x[2], 9, 0xfcefa3f8);
    COM_MD5_GSTEP(c, d, a, b, x[7], 14, 0x676f02d9);
    COM_MD5_GSTEP(b, c, d, a, x[12], 20, 0x8d2a4c8a);

    COM_MD5_STEP(COM_MD5_H, a, b, c, d, x[5], 4, 0xfffa3942);
    COM_MD5_STEP(COM_MD5_H, d, a, b, c, x[8], 11, 0x8771f681);
    COM_MD5_STEP(COM_MD5_H, c, d, a, b, x[11], 16, 0x6d9d6122);
    COM_MD5_STEP(COM_MD5_H, b, c, d, a, x[14], 23, 0xfde5380c);
    COM_MD5_STEP(COM_MD5_H, a, b, c, d, x[1], 4, 0xa4beea44);
    COM_MD5_STEP(COM_MD5_H, d, a, b, c, x[4], 11, 0x4bdecfa9);
    COM_MD5_STEP(COM_MD5_H, c, d, a, b, x[7], 16, 0xf6bb4b60);
    COM_MD5_STEP(COM_MD5_H, b, c, d, a, x[10], 23, 0xbebfbc70);
    COM_MD5_STEP(COM_MD5_H, a, b, c, d, x[13], 4, 0x289b7ec6);
    COM_MD5_STEP(COM_MD5_H, d, a, b, c, x[0], 11, 0xeaa127fa);
    COM_MD5_STEP(COM_MD5_H, c, d, a, b, x[3], 16, 0xd4ef3085);
    COM_MD5_STEP(COM_MD5_H, b, c, d, a, x[6], 23, 0x04881d05);
    COM_MD5_STEP(COM_MD5_H, a, b, c, d, x[9], 4, 0xd9d4d039);
    COM_MD5_STEP(COM_MD5_H, d, a, b, c, x[12], 11, 0xe6db99e5);
    COM_MD5_STEP(COM_MD5_H, c, d, a, b, x[15], 16, 0x1fa27cf8);
    COM_MD5_STEP(COM_MD5_H, b, c, d, a, x[2], 23, 0xc4ac5665);

    COM_MD5_STEP(COM_MD5_I, a, b, c, d, x[0], 6, 0xf4292244);
    COM_MD5_STEP(COM_MD5_I, d, a, b, c, x[7], 10, 0x432aff97);
    COM_MD5_STEP(COM_MD5_I, c, d, a, b, x[14], 15, 0xab9423a7);
    COM_MD5_STEP(COM_MD5_I, b, c, d, a, x[5], 21, 0xfc93a039);
    COM_MD5_STEP(COM_MD5_I, a, b, c, d, x[12], 6, 0x655b59c3);
    COM_MD5_STEP(COM_MD5_I, d, a, b, c, x[3], 10, 0x8f0ccc92);
    COM_MD5_STEP(COM_MD5_I, c, d, a, b, x[10], 15, 0xffeff47d);
    COM_MD5_STEP(COM_MD5_I, b, c, d, a, x[1], 21, 0x85845dd1);
    COM_MD5_STEP(COM_MD5_I, a, b, c, d, x[8], 6, 0x6fa87e4f);
    COM_MD5_STEP(COM_MD5_I, d, a, b, c, x[15], 10, 0xfe2ce6e0);
    COM_MD5_STEP(COM_MD5_I, c, d, a, b, x[6], 15, 0xa3014314);
    COM_MD5_STEP(COM_MD5_I, b, c, d, a, x[13], 21, 0x4e0811a1);
    COM_MD5_STEP(COM_MD5_I, a, b, c, d, x[4], 6, 0xf7537e82);
    COM_MD5_STEP(COM_MD5_I, d, a, b, c, x[11], 10, 0xbd3af235);
    COM_MD5_STEP(COM_MD5_I, c, d, a, b, x[2], 15, 0x2ad7d2bb);
    COM_MD5_STEP(COM_MD5_I, b, c, d, a, x[9], 21, 0xeb86d391);

    a += sa;
    b += sb;
    c += sc;
    d += sd;
    p += 64;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
#undef COM_MD5_GSTEP
#undef COM_MD5_STEP
#undef COM_MD5_I
#undef COM_MD5_H
#undef COM_MD5_F
}

}  // namespace

void Md5Engine::Init(Md5Context& ctx) const {
  ctx.state[0] = 0x67452301;
  ctx.state[1] = 0xefcdab89;
  ctx.state[2] = 0x98badcfe;
  ctx.state[3] = 0x10325476;
  ctx.length = 0;
}

void Md5Engine::Update(Md5Context& ctx, const void* data, size_t length) const {
  if (data == nullptr || length == 0) return;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  size_t used = ctx.length % 64;
  ctx.length += length;
  if (used != 0) {
    size_t take = 64 - used < length ? 64 - used : length;
    std::memcpy(ctx.pending + used, p, take);
    p += take;
    length -= take;
    if (used + take < 64) return;
    Compress(ctx.state, ctx.pending, 1);
  }
  if (length >= 64) {
    Compress(ctx.state, p, length / 64);
    p += length & ~static_cast<size_t>(63);
    length %= 64;
  }
  if (length != 0) std::memcpy(ctx.pending, p, length);
}

void Md5Engine::Final(Md5Context& ctx,
                      unsigned char digest[kMd5DigestSize]) const {
  size_t used = ctx.length % 64;
  uint64_t bits = ctx.length * 8;
  unsigned char tail[128] = {};
  if (used != 0) std::memcpy(tail, ctx.pending, used);
  tail[used] = 0x80;
  size_t blocks = used < 56 ? 1 : 2;
  for (int i = 0; i < 8; ++i) {
    tail[blocks * 64 - 8 + i] = static_cast<unsigned char>(bits >> (8 * i));
  }
  Compress(ctx.state, tail, blocks);
  std::memcpy(digest, ctx.state, kMd5DigestSize);
}

void Md5Engine::Digest(const void* data, size_t length,
                       unsigned char digest[kMd5DigestSize]) const {
  Md5Context ctx;
  Init(ctx);
  Update(ctx, data, length);
  Final(ctx, digest);
}

}  // namespace internal

md5wrapper::md5wrapper() : md5_(new internal::Md5Engine) {}

md5wrapper::~md5wrapper() { delete md5_; }

std::string md5wrapper::hashit(unsigned char* data, unsigned length) {
  unsigned char digest[internal::kMd5DigestSize];
  md5_->Digest(data, data == nullptr ? 0 : length, digest);
  return convToString(digest);
}

std::string md5wrapper::getHashFromBuffer(unsigned char* data,
                                          unsigned length) {
  return hashit(data, length);
}

std::string md5wrapper::convToString(unsigned char* digest) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out(2 * internal::kMd5DigestSize, '0');
  for (size_t i = 0; i < internal::kMd5DigestSize; ++i) {
    out[2 * i] = kDigits[digest[i] >> 4];
    out[2 * i + 1] = kDigits[digest[i] & 0x0F];
  }
  return out;
}

std::string md5wrapper::getHashFromFile(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return "-1";
  struct stat st;
  if (fstat(fileno(file), &st) == 0 && S_ISDIR(st.st_mode)) {
    std::fclose(file);
    return "-1";
  }
  // Larger reads than the digest's 64-byte blocks only save system calls;
  // the digest does not depend on how the input is cut.
  const size_t kChunk = 64 * 1024;
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kChunk]);
  internal::Md5Context ctx;
  md5_->Init(ctx);
  size_t got;
  while ((got = std::fread(buffer.get(), 1, kChunk, file)) != 0) {
    md5_->Update(ctx, buffer.get(), got);
  }
  std::fclose(file);
  unsigned char digest[internal::kMd5DigestSize];
  md5_->Final(ctx, digest);
  return convToString(digest);
}

}  // namespace Kelvane
