#include "common/base/base64coder.h"

#include <openssl/evp.h>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/internal/base64kernels.h"

namespace {

namespace in = Kelvane::internal;

std::vector<unsigned char> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(gen());
  return v;
}

std::string OpenSslEncode(const unsigned char* p, size_t n) {
  std::string out(4 * ((n + 2) / 3) + 1, '\0');
  int len = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]), p,
                            static_cast<int>(n));
  out.resize(static_cast<size_t>(len));
  return out;
}

struct Encoder {
  const char* name;
  void (*fn)(const unsigned char*, size_t, char*);
  bool (*available)();
};
struct Decoder {
  const char* name;
  size_t (*fn)(const char*, size_t, unsigned char*, size_t);
  bool (*available)();
};

bool Always() { return true; }

void PrintTo(const Encoder& e, std::ostream* os) { *os << e.name; }
void PrintTo(const Decoder& d, std::ostream* os) { *os << d.name; }

const Encoder kEncoders[] = {
    {"portable", in::Base64EncodePortable, Always},
    {"avx2", in::Base64EncodeAvx2, in::Base64Avx2Available},
    {"dispatch", in::Base64Encode, Always}};
const Decoder kDecoders[] = {
    {"reference", in::Base64DecodeReference, Always},
    {"portable", in::Base64DecodePortable, Always},
    {"avx2", in::Base64DecodeAvx2, in::Base64Avx2Available},
    {"dispatch", in::Base64Decode, Always}};

// The decoded bytes (empty on failure).
// `capacity` bytes are allocated exactly, so a write past them is caught by
// AddressSanitizer.
std::string Decode(const Decoder& d, const std::string& text, size_t capacity) {
  std::unique_ptr<unsigned char[]> out(new unsigned char[capacity]);
  size_t n = d.fn(text.data(), text.size(), out.get(), capacity);
  return std::string(reinterpret_cast<char*>(out.get()), n);
}

class Base64Encoder : public ::testing::TestWithParam<Encoder> {
 protected:
  void SetUp() override {
    if (!GetParam().available()) GTEST_SKIP() << "no AVX2 on this processor";
  }
  std::string Run(const unsigned char* p, size_t n) {
    // Exactly the encoded size, so an overrun is caught.
    std::unique_ptr<char[]> out(new char[in::Base64EncodedSize(n)]);
    GetParam().fn(p, n, out.get());
    return std::string(out.get(), in::Base64EncodedSize(n));
  }
};

TEST_P(Base64Encoder, MatchesOpenSslForEveryShortLengthAndOffset) {
  std::vector<unsigned char> buf = RandomBytes(300 + 4, 8);
  for (size_t offset = 0; offset < 3; ++offset) {
    for (size_t n = 0; n <= 300; ++n) {
      ASSERT_EQ(OpenSslEncode(buf.data() + offset, n),
                Run(buf.data() + offset, n))
          << "length " << n << " offset " << offset;
    }
  }
  for (size_t n : {size_t{1} << 20, (size_t{1} << 20) + 1, size_t{100000}}) {
    std::vector<unsigned char> big = RandomBytes(n, static_cast<unsigned>(n));
    EXPECT_EQ(OpenSslEncode(big.data(), n), Run(big.data(), n)) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(All, Base64Encoder, ::testing::ValuesIn(kEncoders),
                         [](const ::testing::TestParamInfo<Encoder>& info) {
                           return std::string(info.param.name);
                         });

class Base64Decoder : public ::testing::TestWithParam<Decoder> {
 protected:
  void SetUp() override {
    if (!GetParam().available()) GTEST_SKIP() << "no AVX2 on this processor";
  }
  std::string Run(const std::string& text) {
    return Decode(GetParam(), text, text.size());
  }
};

TEST_P(Base64Decoder, RoundTripsEveryShortLengthAndLargeOnes) {
  std::vector<unsigned char> buf = RandomBytes(300, 9);
  for (size_t n = 0; n <= 300; ++n) {
    ASSERT_EQ(std::string(buf.begin(), buf.begin() + n),
              Run(OpenSslEncode(buf.data(), n)))
        << n;
  }
  std::vector<unsigned char> big = RandomBytes((1 << 20) + 2, 10);
  EXPECT_EQ(std::string(big.begin(), big.end()),
            Run(OpenSslEncode(big.data(), big.size())));
}

TEST_P(Base64Decoder, LenientReaderRules) {
  const std::string kFail = "FAIL";
  struct Row {
    const char* what;
    std::string text;
    std::string want;  // kFail: zero length although symbols were read
  } rows[] = {
      {"plain", "QUJD", "ABC"},
      {"line breaks and blanks", " QU\r\nJD\t", "ABC"},
      {"NUL is skipped", std::string("QU\0JD", 5), "ABC"},
      {"0x80 is skipped", "QU\x80JD", "ABC"},
      {"0xFE is skipped", "\xFEQUJD\xFE", "ABC"},
      {"0xFF ends the input between groups", "QUJD\xFFQUJD", "ABC"},
      {"0xFF inside a group", "QU\xFFJD", kFail},
      {"cut group", "QUJDQUJ", kFail},
      {"cut before the padding", "QQ=", kFail},
      {"one pad", "QUI=", "AB"},
      {"two pads", "QQ==", "A"},
      {"third pad decides alone", "QQ=A", "A"},
      {"padded group ends decoding", "QQ==QUJD", "A"},
      {"garbage after padding is ignored", "QQ==!!!", "A"},
      {"unused bits are ignored", "QR==", "A"},
      {"pad in first place reads as 0", "=QQQ", std::string("\x01\x04\x10")},
      {"symbol outside the alphabet", "QU!D", kFail},
      {"garbage at a group start", "QUJD!", kFail},
      {"url-safe alphabet is not ours", "QU-_", kFail},
      {"only blanks", " \n\t ", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::string got = Run(r.text);
    if (r.want == kFail) {
      EXPECT_EQ(0u, got.size());
    } else {
      EXPECT_EQ(r.want, got);
    }
  }
}

TEST_P(Base64Decoder, OutputNeverExceedsCapacity) {
  std::vector<unsigned char> bytes = RandomBytes(96, 11);
  std::string text = OpenSslEncode(bytes.data(), bytes.size());  // 128 chars
  std::string want(bytes.begin(), bytes.end());
  // Exactly enough room works; one byte less fails without writing past.
  EXPECT_EQ(want, Decode(GetParam(), text, 96));
  EXPECT_EQ(0u, Decode(GetParam(), text, 95).size());
  EXPECT_EQ(0u, Decode(GetParam(), text, 0).size());
  EXPECT_EQ("A", Decode(GetParam(), "QQ==", 1));
  EXPECT_EQ("AB", Decode(GetParam(), "QUI=", 2));
  EXPECT_EQ(0u, Decode(GetParam(), "QUI=", 1).size());
}

INSTANTIATE_TEST_SUITE_P(All, Base64Decoder, ::testing::ValuesIn(kDecoders),
                         [](const ::testing::TestParamInfo<Decoder>& info) {
                           return std::string(info.param.name);
                         });

// The fast decoders must agree with the symbol-by-symbol reader on any
// input: mostly clean text with now and then a byte the reader treats
// specially.
TEST(Base64Decoders, AgreeWithTheReferenceOnNoisyInput) {
  const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const char kOdd[] = {'=', ' ', '\n', '\0', '\x80', '\xFE', '\xFF', '!', '-'};
  std::mt19937 gen(12);
  for (int round = 0; round < 3000; ++round) {
    size_t len = gen() % 200;
    unsigned noise = 1 + gen() % 400;  // one odd byte in `noise`, about
    std::string text;
    for (size_t i = 0; i < len; ++i) {
      text += gen() % noise == 0 ? kOdd[gen() % sizeof kOdd]
                                 : kAlphabet[gen() % 64];
    }
    std::string want = Decode(kDecoders[0], text, text.size());
    for (const Decoder& d : kDecoders) {
      if (!d.available()) continue;
      ASSERT_EQ(want, Decode(d, text, text.size()))
          << d.name << " on " << ::testing::PrintToString(text);
    }
  }
}

TEST(Base64Coder, EncodeGivesOneLineWithPadding) {
  Base64Coder b64;
  struct Row {
    std::string bytes;
    const char* want;
  } rows[] = {
      {"", ""},
      {"A", "QQ=="},
      {"AB", "QUI="},
      {"ABC", "QUJD"},
      {std::string("\xFB\xFF\xBF", 3), "+/+/"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want);
    ACE_CString out("old content");
    b64.Encode(out, reinterpret_cast<const unsigned char*>(r.bytes.data()),
               static_cast<unsigned>(r.bytes.size()));
    EXPECT_STREQ(r.want, out.c_str());
    EXPECT_EQ(strlen(r.want), out.length());
  }
  std::vector<unsigned char> big = RandomBytes(3000, 13);
  ACE_CString out;
  b64.Encode(out, big.data(), static_cast<unsigned>(big.size()));
  EXPECT_EQ(4000u, out.length());
  EXPECT_EQ(ACE_CString::npos, out.find('\n'));
}

TEST(Base64Coder, DecodeReturnsABufferOfTheInputLength) {
  Base64Coder b64;
  struct Row {
    std::string text;
    std::string want;
  } rows[] = {
      {"QUJD\nREVG\n", "ABCDEF"},
      {"QUJ", ""},
      {"", ""},
      {"\xFF", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    unsigned got = 99;
    Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
        b64.Decode(r.text.data(), static_cast<unsigned>(r.text.size()), got);
    ASSERT_NE(nullptr, buf.get());
    EXPECT_EQ(r.want, std::string(buf.get(), got));
    // The whole buffer of the input's length is ours to touch.
    if (!r.text.empty()) buf[r.text.size() - 1] = 'x';
  }
  unsigned got = 99;
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf =
      b64.Decode(nullptr, 0, got);
  EXPECT_EQ(0u, got);
}

}  // namespace
