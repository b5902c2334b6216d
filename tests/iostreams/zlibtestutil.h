// zlib-side helpers for the compressed stream tests: an independent
// decoder and encoder of blocks (length word + zlib streams) made with
// plain zlib calls, and sample data.
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

// Inflates exactly one zlib stream from `data`; true when it ends exactly
// at the end of `data` with a good checksum.
inline bool InflateOne(const unsigned char* data, size_t size,
                       std::string* out) {
  z_stream z = {};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = const_cast<Bytef*>(data);
  z.avail_in = static_cast<uInt>(size);
  out->clear();
  char chunk[65536];
  int rc;
  do {
    z.next_out = reinterpret_cast<Bytef*>(chunk);
    z.avail_out = sizeof chunk;
    rc = inflate(&z, Z_NO_FLUSH);
    out->append(chunk, sizeof chunk - z.avail_out);
  } while (rc == Z_OK);
  bool ok = rc == Z_STREAM_END && z.avail_in == 0;
  inflateEnd(&z);
  return ok;
}

// One zlib stream of `data`, made by zlib alone.
inline std::string Deflate(const std::string& data, int level,
                           int windowBits = 15, int memLevel = 8) {
  z_stream z = {};
  deflateInit2(&z, level, Z_DEFLATED, windowBits, memLevel, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, data.size()) + 64, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// 16-bit samples of a smooth picture with noise in the low bits, the way
// CT and MR pixel data look.
inline std::string ImageLike(size_t bytes, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(bytes, '\0');
  const size_t width = 512;
  for (size_t i = 0; i + 1 < bytes; i += 2) {
    size_t px = i / 2;
    size_t x = px % width, y = px / width;
    int v = static_cast<int>(1000 + 600 * ((x * x + y * y) % 4096) / 4096) +
            static_cast<int>(rng() % 16);
    s[i] = static_cast<char>(v & 0xff);
    s[i + 1] = static_cast<char>(v >> 8);
  }
  return s;
}

inline std::string RandomBytes(size_t bytes, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(bytes, '\0');
  for (auto& c : s) c = static_cast<char>(rng());
  return s;
}

}  // namespace streamtest

#endif  // COM_TESTS_IOSTREAMS_ZLIBTESTUTIL_H_
