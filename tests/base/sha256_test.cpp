#include "common/base/sha256.h"

#include <openssl/evp.h>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/internal/sha256kernels.h"

namespace {

using Kelvane::internal::kSha256DigestSize;

std::vector<unsigned char> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(gen());
  return v;
}

std::string OpenSslDigest(const unsigned char* p, size_t n) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_Digest(p, n, md, &len, EVP_sha256(), nullptr);
  return std::string(reinterpret_cast<char*>(md), len);
}

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

struct Kernel {
  const char* name;
  void (*fn)(const void*, size_t, unsigned char*);
  bool (*available)();
};

bool Always() { return true; }

void PrintTo(const Kernel& k, std::ostream* os) { *os << k.name; }

const Kernel kKernels[] = {
    {"portable", Kelvane::internal::Sha256Portable, Always},
    {"shani", Kelvane::internal::Sha256ShaNi,
     Kelvane::internal::Sha256ShaNiAvailable},
    {"dispatch", Kelvane::internal::Sha256, Always}};

class SHA256Kernel : public ::testing::TestWithParam<Kernel> {
 protected:
  void SetUp() override {
    if (!GetParam().available()) {
      GTEST_SKIP() << "the processor lacks the SHA extensions";
    }
  }
  std::string Run(const unsigned char* p, size_t n) {
    unsigned char md[kSha256DigestSize];
    GetParam().fn(p, n, md);
    return std::string(reinterpret_cast<char*>(md), sizeof md);
  }
};

TEST_P(SHA256Kernel, MatchesOpenSslForEveryShortLengthAndOffset) {
  // 55/56 and 119/120 bytes are where the padding spills into a new block.
  std::vector<unsigned char> buf = RandomBytes(300 + 8, 2);
  for (size_t offset = 0; offset < 3; ++offset) {
    for (size_t n = 0; n <= 300; ++n) {
      ASSERT_EQ(OpenSslDigest(buf.data() + offset, n),
                Run(buf.data() + offset, n))
          << "length " << n << " offset " << offset;
    }
  }
}

TEST_P(SHA256Kernel, MatchesOpenSslOnLargeInputs) {
  for (size_t n : {size_t{1} << 20, (size_t{1} << 20) + 7, size_t{65537}}) {
    std::vector<unsigned char> buf =
        RandomBytes(n + 1, static_cast<unsigned>(n));
    EXPECT_EQ(OpenSslDigest(buf.data() + 1, n), Run(buf.data() + 1, n)) << n;
  }
}

INSTANTIATE_TEST_SUITE_P(All, SHA256Kernel, ::testing::ValuesIn(kKernels),
                         [](const ::testing::TestParamInfo<Kernel>& info) {
                           return std::string(info.param.name);
                         });

TEST(SHA256, GetHashIsLowerCaseHexOfTheDigest) {
  Kelvane::SHA256 sha;
  std::vector<unsigned char> buf = RandomBytes(1000, 3);
  for (size_t n : {size_t{1}, size_t{3}, size_t{64}, size_t{1000}}) {
    SCOPED_TRACE(n);
    ACE_CString got = sha.GetHash(buf.data(), n);
    EXPECT_EQ(ToHex(OpenSslDigest(buf.data(), n)),
              std::string(got.c_str(), got.length()));
  }
  unsigned char abc[] = {'a', 'b', 'c'};
  EXPECT_STREQ(
      "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
      sha.GetHash(abc, 3).c_str());
}

TEST(SHA256, NoDataGivesTheEmptyStringNotTheEmptyDigest) {
  Kelvane::SHA256 sha;
  unsigned char byte = 'x';
  EXPECT_EQ(0u, sha.GetHash(nullptr, 0).length());
  EXPECT_EQ(0u, sha.GetHash(nullptr, 10).length());
  EXPECT_EQ(0u, sha.GetHash(&byte, 0).length());
}

}  // namespace
