#include "common/base/base64coder.h"

#include <cstring>
#include <memory>
#include <openssl/evp.h>
#include <string>

#include <gtest/gtest.h>

#include "common/base/internal/base64kernels.h"

#include "support/testbytes.h"

namespace {

namespace in = Kelvane::internal;
using testsupport::RandomBytes;
using testsupport::U8;

std::string OpenSslEncode(const std::string& bytes, size_t offset, size_t n) {
  std::string out(4 * ((n + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                            U8(bytes) + offset, static_cast<int>(n));
  out.resize(static_cast<size_t>(len));
  return out;
}

bool Always() { return true; }

const struct Encoder {
  const char* name;
  void (*fn)(const unsigned char*, size_t, char*);
  bool (*available)();
} kEncoders[] = {{"portable", in::Base64EncodePortable, Always},
                 {"avx2", in::Base64EncodeAvx2, in::Base64Avx2Available},
                 {"dispatch", in::Base64Encode, Always}};
const struct Decoder {
  const char* name;
  size_t (*fn)(const char*, size_t, unsigned char*, size_t);
  bool (*available)();
} kDecoders[] = {{"reference", in::Base64DecodeReference, Always},
                 {"portable", in::Base64DecodePortable, Always},
                 {"avx2", in::Base64DecodeAvx2, in::Base64Avx2Available},
                 {"dispatch", in::Base64Decode, Always}};

// Buffers are allocated to their exact size, so a write past them is caught
// by AddressSanitizer.
std::string Encode(const Encoder& e, const std::string& bytes, size_t offset,
                   size_t n) {
  std::unique_ptr<char[]> out(new char[in::Base64EncodedSize(n)]);
  e.fn(U8(bytes) + offset, n, out.get());
  return std::string(out.get(), in::Base64EncodedSize(n));
}

// The decoded bytes (empty on failure).
std::string Decode(const Decoder& d, const std::string& text, size_t capacity) {
  std::unique_ptr<unsigned char[]> out(new unsigned char[capacity]);
  size_t n = d.fn(text.data(), text.size(), out.get(), capacity);
  return std::string(reinterpret_cast<char*>(out.get()), n);
}

TEST(Base64Kernels, MatchOpenSslForEveryShortLengthAndOffset) {
  const std::string buf = RandomBytes(300 + 4, 8),
                    big = RandomBytes((1 << 20) + 1, 9);
  for (const Encoder& e : kEncoders) {
    if (!e.available()) continue;
    SCOPED_TRACE(e.name);
    for (size_t offset = 0; offset < 3; ++offset) {
      for (size_t n = 0; n <= 300; ++n) {
        ASSERT_EQ(OpenSslEncode(buf, offset, n), Encode(e, buf, offset, n))
            << "length " << n << " offset " << offset;
      }
    }
    EXPECT_EQ(OpenSslEncode(big, 0, big.size()), Encode(e, big, 0, big.size()));
  }
  for (const Decoder& d : kDecoders) {
    if (!d.available()) continue;
    SCOPED_TRACE(d.name);
    for (size_t n = 0; n <= 300; ++n) {
      std::string text = OpenSslEncode(buf, 0, n);
      ASSERT_EQ(buf.substr(0, n), Decode(d, text, text.size())) << n;
    }
    std::string text = OpenSslEncode(big, 0, big.size());
    EXPECT_EQ(big, Decode(d, text, text.size()));
  }
}

TEST(Base64Kernels, LenientReaderRules) {
  const std::string kFail = "FAIL";
  struct Row {
    std::string text;
    std::string want;  // kFail: zero length although symbols were read
    size_t capacity;   // 0: the text's length
  } rows[] = {
      {std::string(" QU\r\n\0JD\t", 9), "ABC", 0},  // blanks, NUL
      {"\xFEQU\x80JD\xFE", "ABC", 0},               // 0x80 and 0xFE are skipped
      {"QUJD\xFFQUJD", "ABC", 0},  // 0xFF ends the input between groups
      {"QU\xFFJD", kFail, 0},      // ... but not inside one
      {"QQ=", kFail, 0},           // cut before the padding
      {"QUI=", "AB", 2},
      {"QQ=A", "A", 1},                          // the third pad decides alone
      {"QQ==QUJD", "A", 0},                      // a padded group ends decoding
      {"=QQQ", std::string("\x01\x04\x10"), 0},  // a leading pad reads as 0
      {"QUI=", kFail, 1},                        // one byte too little room
  };
  for (const Decoder& d : kDecoders) {
    if (!d.available()) continue;
    for (const Row& r : rows) {
      SCOPED_TRACE(testing::Message()
                   << d.name << " " << testing::PrintToString(r.text));
      std::string got =
          Decode(d, r.text, r.capacity ? r.capacity : r.text.size());
      EXPECT_EQ(r.want == kFail ? "" : r.want, got);
    }
  }
}

TEST(Base64Coder, EncodeAndDecode) {
  Base64Coder b64;
  ACE_CString out("old content");
  b64.Encode(out, U8("\xFB\xFF\xBF\x41"), 4);
  EXPECT_STREQ("+/+/QQ==", out.c_str());
  std::string big = RandomBytes(3000, 13);
  b64.Encode(out, U8(big), static_cast<unsigned>(big.size()));
  EXPECT_EQ(4000u, out.length()) << "one line, no breaks";

  for (std::string text : {"QUJD\nREVG\n", "QUJ"}) {
    unsigned got = 99;
    Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
        b64.Decode(text.data(), static_cast<unsigned>(text.size()), got);
    ASSERT_NE(nullptr, buf.get());
    // A cut group decodes to nothing; the whole buffer of the input's
    // length is ours to touch.
    EXPECT_EQ(text == "QUJ" ? "" : "ABCDEF", std::string(buf.get(), got));
    buf[text.size() - 1] = 'x';
  }
}

}  // namespace
