// zlib-side helpers for the compressed stream tests: blocks (length word +
// zlib streams) made and checked with plain zlib calls, and sample data.
#ifndef COM_TESTS_IOSTREAMS_ZLIBTESTUTIL_H_
#define COM_TESTS_IOSTREAMS_ZLIBTESTUTIL_H_

#include <cstdint>
#include <random>
#include <string>

#include <zlib.h>

namespace streamtest {

inline uint32_t LengthWord(const unsigned char* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

inline std::string LengthWordBytes(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(v >> (8 * i));
  return s;
}

// True when `size` bytes at `data` are exactly one complete zlib stream of
// `want`.
inline bool InflatesTo(const unsigned char* data, size_t size,
                       const std::string& want) {
  std::string out(want.size() + 1, '\0');
  uLongf outLen = out.size();
  uLong inLen = size;
  int rc =
      uncompress2(reinterpret_cast<Bytef*>(out.data()), &outLen, data, &inLen);
  return rc == Z_OK && inLen == size && out.substr(0, outLen) == want;
}

// One zlib stream of `data`, made by zlib alone.
inline std::string Deflate(const std::string& data, int level = 6) {
  std::string out(compressBound(data.size()), '\0');
  uLongf len = out.size();
  compress2(reinterpret_cast<Bytef*>(out.data()), &len,
            reinterpret_cast<const Bytef*>(data.data()), data.size(), level);
  out.resize(len);
  return out;
}

// 16-bit samples of a smooth picture with noise in the low bits, the way
// CT and MR pixel data look.
inline std::string ImageLike(size_t bytes, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(bytes, '\0');
  for (size_t i = 0; i + 1 < bytes; i += 2) {
    size_t x = i / 2 % 512, y = i / 1024;
    int v = static_cast<int>(1000 + 600 * ((x * x + y * y) % 4096) / 4096 +
                             rng() % 16);
    s[i] = static_cast<char>(v & 0xff);
    s[i + 1] = static_cast<char>(v >> 8);
  }
  return s;
}

}  // namespace streamtest

#endif  // COM_TESTS_IOSTREAMS_ZLIBTESTUTIL_H_
