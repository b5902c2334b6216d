// Decodes arbitrary bytes with Base64Coder and checks that the result fits,
// that the fast decoders agree with the symbol-by-symbol reader, and that
// canonical text (alphabet only, length a multiple of four, '=' only at
// the end, unused bits zero) comes back unchanged when re-encoded.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/base/base64coder.h"
#include "common/base/internal/base64kernels.h"

namespace {

int Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool Canonical(const uint8_t* p, size_t n) {
  if (n == 0 || n % 4 != 0) return false;
  size_t pads = p[n - 1] == '=' ? (p[n - 2] == '=' ? 2 : 1) : 0;
  for (size_t i = 0; i < n - pads; ++i) {
    if (Value(p[i]) < 0) return false;
  }
  if (pads == 2) return (Value(p[n - 3]) & 0x0F) == 0;
  if (pads == 1) return (Value(p[n - 2]) & 0x03) == 0;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const char* text = reinterpret_cast<const char*>(data);
  unsigned length = static_cast<unsigned>(size);

  Base64Coder b64;
  unsigned decoded = 0;
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
      b64.Decode(text, length, decoded);
  if (decoded > length) std::abort();

  // Every decoder gives the same bytes into a buffer of exactly the size.
  namespace in = Kelvane::internal;
  size_t (*const decoders[])(const char*, size_t, unsigned char*, size_t) = {
      in::Base64DecodeReference, in::Base64DecodePortable,
      in::Base64DecodeAvx2};
  for (auto decode : decoders) {
    if (decode == in::Base64DecodeAvx2 && !in::Base64Avx2Available()) continue;
    std::unique_ptr<unsigned char[]> out(new unsigned char[size + 1]);
    size_t n = decode(text, size, out.get(), size);
    if (n != decoded || (n != 0 && std::memcmp(out.get(), buf.get(), n) != 0))
      std::abort();
  }

  if (decoded > 0 && Canonical(data, size)) {
    ACE_CString again;
    b64.Encode(again, reinterpret_cast<const unsigned char*>(buf.get()),
               decoded);
    if (again.length() != size || std::memcmp(again.c_str(), data, size) != 0)
      std::abort();
  }
  return 0;
}
