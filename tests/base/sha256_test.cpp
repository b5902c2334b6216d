#include "common/base/sha256.h"

#include <string>

#include <gtest/gtest.h>

#include "common/base/internal/sha256kernels.h"

#include "support/testbytes.h"

namespace {

using testsupport::RandomBytes;
using testsupport::U8;

bool Always() { return true; }

TEST(SHA256Kernels, MatchOpenSslForEveryShortLengthAndOffset) {
  const struct {
    const char* name;
    void (*fn)(const void*, size_t, unsigned char*);
    bool (*available)();
  } kernels[] = {{"portable", Kelvane::internal::Sha256Portable, Always},
                 {"shani", Kelvane::internal::Sha256ShaNi,
                  Kelvane::internal::Sha256ShaNiAvailable},
                 {"dispatch", Kelvane::internal::Sha256, Always}};
  // 55/56 and 119/120 bytes are where the padding spills into a new block.
  const std::string buf = RandomBytes(300 + 8, 2),
                    big = RandomBytes((1 << 20) + 8, 3);
  for (const auto& k : kernels) {
    if (!k.available()) continue;
    SCOPED_TRACE(k.name);
    auto run = [&](const std::string& s, size_t offset, size_t n) {
      unsigned char md[Kelvane::internal::kSha256DigestSize];
      k.fn(s.data() + offset, n, md);
      return std::string(reinterpret_cast<char*>(md), sizeof md);
    };
    for (size_t offset = 0; offset < 3; ++offset) {
      for (size_t n = 0; n <= 300; ++n) {
        ASSERT_EQ(
            testsupport::OpenSslDigest(EVP_sha256(), buf.data() + offset, n),
            run(buf, offset, n))
            << "length " << n << " offset " << offset;
      }
    }
    EXPECT_EQ(testsupport::OpenSslDigest(EVP_sha256(), big.data() + 1,
                                         big.size() - 1),
              run(big, 1, big.size() - 1));
  }
}

TEST(SHA256, GetHashIsLowerCaseHexAndEmptyForNoData) {
  Kelvane::SHA256 sha;
  std::string buf = RandomBytes(1000, 3);
  ACE_CString got = sha.GetHash(U8(buf), 1000);
  EXPECT_EQ(testsupport::LowerHex(
                testsupport::OpenSslDigest(EVP_sha256(), buf.data(), 1000)),
            std::string(got.c_str(), got.length()));
  // No data gives the empty string, not the digest of no bytes.
  EXPECT_EQ(
      0u, sha.GetHash(nullptr, 10).length() + sha.GetHash(U8(buf), 0).length());
}

}  // namespace
