// A reversible scrambler for short texts kept in configuration (passwords
// of service accounts and the like). It hides a value from a casual look;
// it is not encryption.
//
// Each byte is XORed with a byte of a fixed 15-byte key table; the table
// position advances by the value of each scrambled byte, so Decrypt undoes
// Encrypt exactly. A plain byte equal to the key byte it meets scrambles to
// '\0' and cuts the scrambled text short there; callers avoid such texts.
//
// Thread safety: stateless; both operations may run on any thread.
//
//   char scrambled[sizeof "secret"], plain[sizeof "secret"];
//   KelvaneCrypt::Encrypt("secret", scrambled);
//   KelvaneCrypt::Decrypt(scrambled, plain);   // "secret"
#ifndef COM_COMMON_BASE_KELVANECRYPT_H_
#define COM_COMMON_BASE_KELVANECRYPT_H_

#include "common/base/comexport.h"

class COM_EXPORT KelvaneCrypt {
 public:
  // Scramble / unscramble the '\0'-terminated text into `out`, which must
  // hold strlen(input) + 1 bytes; `out` is always '\0'-terminated at that
  // length. Null arguments: nothing happens.
  static void Encrypt(const char* plain, char* out);
  static void Decrypt(const char* scrambled, char* out);
};

#endif  // COM_COMMON_BASE_KELVANECRYPT_H_
