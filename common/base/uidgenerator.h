// UIDGenerator mints DICOM unique identifiers: dotted decimal texts of at
// most 64 characters, unique across machines, processes and time without
// any coordination. A process initialises it once with an organisation
// root; every UID then reads
//
//   <root>.<method>.<first>.<second>.<pid>.<seconds since 1970>.<counter>
//
// method 1: first/second are the upper and lower three bytes of the first
// usable Ethernet address (big-endian); method 2: two numbers of the
// caller's. The counter is per process, starts at 1 and skips 0 on wrap.
//
// On Linux the adapters are the AF_PACKET entries of getifaddrs(), in the
// order it lists them (interface index order). The loopback adapter has an
// all-zero address and is passed over, so a machine (or network namespace)
// with only loopback has no usable address: InitializeMAC returns false and
// the caller falls back to InitializeAlternate.
//
// Thread safety: GenerateUID may run on any number of threads at once; it
// takes no lock (the counter is one lock-free atomic increment) and
// allocates nothing but the result text. The initialisers are meant to run
// once at start-up, before any thread mints UIDs, and are not locked
// against each other or against GenerateUID.
//
//   UIDGenerator::InitializeAlternate(1, 2, "1.2.3");
//   ACE_CString uid = UIDGenerator::GenerateUID();
//   // "1.2.3.2.1.2.4242.1700000000.1" in process 4242
#ifndef COM_COMMON_BASE_UIDGENERATOR_H_
#define COM_COMMON_BASE_UIDGENERATOR_H_

#include <exception>

#include <ace/SString.h>

#include "common/base/comexport.h"

// Thrown by UIDGenerator::GenerateUID when the UID would be too long; what()
// is the fixed text UIDGenerator::kTooLongMessage.
class COM_EXPORT UIDGeneratorException : public std::exception {
 public:
  explicit UIDGeneratorException(const char* message) : message_(message) {}
  const char* what() const noexcept override { return message_; }

 private:
  const char* message_;
};

class COM_EXPORT UIDGenerator {
 public:
  static constexpr const char kTooLongMessage[] =
      "Unable to create UID that is less than 64 characters";
  // The longest UID, and the room of the prefix buffer (63 characters).
  static constexpr int kMaxUIDLength = 64;

  // Uses the first adapter with a 6-byte hardware address whose upper or
  // lower half is non-zero; the prefix becomes "<root>.1.<first>.<second>.
  // <pid>.". If that adapter has a zero half (or none qualifies, or the
  // adapters cannot be read) returns false and stays uninitialised. Once
  // initialised (by either initialiser) returns true at once and keeps the
  // prefix: the first initialisation wins. A prefix longer than 63
  // characters is cut there.
  static bool InitializeMAC(const char* root);

  // prefix = "<root>.2.<first>.<second>.<pid>.", cut at 63 characters;
  // always replaces any earlier prefix. first and second are taken as 32-bit
  // numbers printed signed, so 4294967295 appears as -1. Returns false only
  // when the process id is 0.
  static bool InitializeAlternate(unsigned long first, unsigned long second,
                                  const char* root);

  static bool IsInitialized();

  // out = prefix + seconds since 1970 (UTC) + "." + counter. Throws a plain
  // std::exception when not initialised, and UIDGeneratorException with
  // kTooLongMessage (after logging it with the partial text at LM_ERROR)
  // when the UID would exceed 64 characters. Reuses out's buffer when it is
  // large enough.
  static void GenerateUID(ACE_String_Base<char>& out);
  static ACE_String_Base<char> GenerateUID();

  // UID texts that need no initialisation. All are thread-safe.

  // True when `uid` obeys the UI rules: 1 to 64 characters, dot-separated
  // components of digits, none empty, none with a leading zero except "0"
  // itself. "1.2.840.10008" and "0.0" are valid; "1..2", "1.02", "1.2.",
  // "" and "1.2 " (padded) are not.
  static bool IsValid(const ACE_CString& uid);

  // "2.25." followed by the UUID read as one 128-bit unsigned integer in
  // decimal: f81d4fae-7dec-11d0-a765-00a0c91e6bf6 gives
  // 2.25.329800735698586629295641978511506172918. Accepts the 36-character
  // form with hyphens after the 8th, 12th, 16th and 20th digit and the
  // 32-digit form without hyphens, in either letter case, each optionally
  // in braces and optionally after "urn:uuid:". An empty string for
  // anything else.
  static ACE_CString FromUUID(const ACE_CString& uuid);

  // FromUUID of a random version-4 UUID (122 bits from getrandom(2)).
  static ACE_CString GenerateUUIDUID();

  // A deterministic replacement for `uid`, for de-identification: `prefix`
  // followed by the leading decimal digits of the SHA-512 digest of the
  // bytes of `uid` then `salt`, read as one big-endian integer, as many as
  // fit in 64 characters. The same inputs always give the same UID;
  // different salts give unrelated ones. `prefix` must be a UID prefix:
  // valid components each followed by ".", at most 63 characters
  // ("1.2.826.0.1.3680043.8.498."); otherwise the result is empty.
  static ACE_CString Remap(const ACE_CString& prefix, const ACE_CString& uid,
                           const ACE_CString& salt);
};

#endif  // COM_COMMON_BASE_UIDGENERATOR_H_
