// Test data and reference digests shared by the codec and digest tests.
#ifndef COM_TESTS_SUPPORT_TESTBYTES_H_
#define COM_TESTS_SUPPORT_TESTBYTES_H_

#include <cstdint>
#include <openssl/evp.h>
#include <random>
#include <string>

namespace testsupport {

// `n` pseudo-random bytes, the same for the same seed.
inline std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(gen());
  return s;
}

inline const unsigned char* U8(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}
inline unsigned char* U8(std::string& s) {
  return reinterpret_cast<unsigned char*>(s.data());
}

inline std::string LowerHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

// The raw digest of `n` bytes at `p` as OpenSSL computes it.
inline std::string OpenSslDigest(const EVP_MD* md, const void* p, size_t n) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_Digest(p, n, out, &len, md, nullptr);
  return std::string(reinterpret_cast<char*>(out), len);
}

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_TESTBYTES_H_
