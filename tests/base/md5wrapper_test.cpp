#include "common/base/md5wrapper.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <openssl/evp.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/internal/md5kernels.h"

#include "support/runas.h"
#include "support/tempfolder.h"

namespace {

std::vector<unsigned char> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(gen());
  return v;
}

std::string OpenSslMd5Hex(const unsigned char* p, size_t n) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  EVP_Digest(p, n, md, &len, EVP_md5(), nullptr);
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < len; ++i) {
    out += kDigits[md[i] >> 4];
    out += kDigits[md[i] & 15];
  }
  return out;
}

TEST(md5wrapper, BufferMatchesOpenSslForEveryShortLengthAndOffset) {
  Kelvane::md5wrapper md5;
  std::vector<unsigned char> buf = RandomBytes(300 + 4, 4);
  for (size_t offset = 0; offset < 3; ++offset) {
    for (unsigned n = 0; n <= 300; ++n) {
      ASSERT_EQ(OpenSslMd5Hex(buf.data() + offset, n),
                md5.getHashFromBuffer(buf.data() + offset, n))
          << "length " << n << " offset " << offset;
    }
  }
  std::vector<unsigned char> big = RandomBytes((1 << 20) + 5, 5);
  EXPECT_EQ(OpenSslMd5Hex(big.data(), big.size()),
            md5.getHashFromBuffer(big.data(), big.size()));
}

TEST(md5wrapper, KnownDigests) {
  Kelvane::md5wrapper md5;
  unsigned char abc[] = {'a', 'b', 'c'};
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5.getHashFromBuffer(abc, 3));
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e",
            md5.getHashFromBuffer(nullptr, 0));
  unsigned char digest[16];
  for (int i = 0; i < 16; ++i) digest[i] = static_cast<unsigned char>(i * 17);
  EXPECT_EQ("00112233445566778899aabbccddeeff", md5.convToString(digest));
}

TEST(md5wrapper, StreamingInAnyPiecesEqualsOneShot) {
  Kelvane::internal::Md5Engine engine;
  std::vector<unsigned char> buf = RandomBytes(5000, 6);
  unsigned char want[16];
  engine.Digest(buf.data(), buf.size(), want);
  for (size_t piece : {size_t{1}, size_t{7}, size_t{63}, size_t{64}, size_t{65},
                       size_t{1000}}) {
    SCOPED_TRACE(piece);
    Kelvane::internal::Md5Context ctx;
    engine.Init(ctx);
    for (size_t at = 0; at < buf.size(); at += piece) {
      engine.Update(ctx, buf.data() + at, std::min(piece, buf.size() - at));
    }
    unsigned char got[16];
    engine.Final(ctx, got);
    EXPECT_EQ(0, memcmp(want, got, 16));
  }
}

class Md5FileTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dir_.ok()); }
  testsupport::TempFolder dir_;
  Kelvane::md5wrapper md5_;
};

TEST_F(Md5FileTest, FilesOfVariousSizes) {
  const size_t sizes[] = {0, 1, 1023, 1024, 1025, 65536, 65537, 300001};
  for (size_t n : sizes) {
    SCOPED_TRACE(n);
    std::vector<unsigned char> bytes = RandomBytes(n, static_cast<unsigned>(n));
    std::string path = dir_.Write("f" + std::to_string(n),
                                  std::string(bytes.begin(), bytes.end()));
    EXPECT_EQ(OpenSslMd5Hex(bytes.data(), n), md5_.getHashFromFile(path));
  }
}

TEST_F(Md5FileTest, UnopenableFilesGiveMinusOne) {
  struct Row {
    const char* what;
    std::string path;
  } rows[] = {
      {"missing file", dir_.File("absent.dat")},
      {"under a missing folder", dir_.File("no/such/file")},
      {"folder", dir_.path()},
      {"empty path", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    EXPECT_EQ("-1", md5_.getHashFromFile(r.path));
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.File("absent.dat")));
}

TEST_F(Md5FileTest, UnreadableFileGivesMinusOne) {
  std::string path = dir_.Write("secret.dat", "content");
  ASSERT_EQ(0, chmod(path.c_str(), 0000));
  std::string out;
  ASSERT_TRUE(testsupport::RunUnprivileged(
      [&] { return Kelvane::md5wrapper().getHashFromFile(path); }, &out))
      << out;
  EXPECT_EQ("-1", out);
  // Readable again for the same user: a digest, not "-1".
  ASSERT_EQ(0, chmod(path.c_str(), 0444));
  ASSERT_TRUE(testsupport::RunUnprivileged(
      [&] { return Kelvane::md5wrapper().getHashFromFile(path); }, &out))
      << out;
  unsigned char content[] = {'c', 'o', 'n', 't', 'e', 'n', 't'};
  EXPECT_EQ(OpenSslMd5Hex(content, sizeof content), out);
}

}  // namespace
