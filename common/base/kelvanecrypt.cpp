#include "common/base/kelvanecrypt.h"

#include <cstdint>

namespace {

// Scrambled values written by an installation can only be read back with
// the table that wrote them.
const unsigned char kKey[] = {0x3C, 0x9A, 0x0E, 0x71, 0xB5, 0xD2, 0x48, 0x6F,
                              0xA1, 0xE7, 0x30, 0x5C, 0x92, 0xD4, 0xB8};
const uint32_t kKeyLength = 15;
static_assert(sizeof kKey == kKeyLength, "key table and its count agree");

}  // namespace

void KelvaneCrypt::Encrypt(const char* plain, char* out) {
  if (plain == nullptr || out == nullptr) return;
  uint32_t k = 0;
  const unsigned char* in = reinterpret_cast<const unsigned char*>(plain);
  for (; *in != 0; ++in, ++out) {
    unsigned char c = static_cast<unsigned char>(*in ^ kKey[k % kKeyLength]);
    *out = static_cast<char>(c);
    k += c;
  }
  *out = '\0';
}

void KelvaneCrypt::Decrypt(const char* scrambled, char* out) {
  if (scrambled == nullptr || out == nullptr) return;
  uint32_t k = 0;
  const unsigned char* in = reinterpret_cast<const unsigned char*>(scrambled);
  for (; *in != 0; ++in, ++out) {
    *out = static_cast<char>(*in ^ kKey[k % kKeyLength]);
    k += *in;
  }
  *out = '\0';
}
