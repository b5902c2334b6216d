#include "common/base/md5wrapper.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/runas.h"
#include "support/tempfolder.h"
#include "support/testbytes.h"

namespace {

using testsupport::RandomBytes;
using testsupport::U8;

std::string OpenSslMd5Hex(const std::string& s, size_t offset, size_t n) {
  return testsupport::LowerHex(
      testsupport::OpenSslDigest(EVP_md5(), s.data() + offset, n));
}

TEST(md5wrapper, BufferMatchesOpenSslForEveryShortLengthAndOffset) {
  Kelvane::md5wrapper md5;
  std::string buf = RandomBytes(300 + 4, 4),
              big = RandomBytes((1 << 20) + 5, 5);
  for (size_t offset = 0; offset < 3; ++offset) {
    for (unsigned n = 0; n <= 300; ++n) {
      ASSERT_EQ(OpenSslMd5Hex(buf, offset, n),
                md5.getHashFromBuffer(U8(buf) + offset, n))
          << "length " << n << " offset " << offset;
    }
  }
  EXPECT_EQ(OpenSslMd5Hex(big, 0, big.size()),
            md5.getHashFromBuffer(U8(big), big.size()));
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e",
            md5.getHashFromBuffer(nullptr, 0));
}

TEST(md5wrapper, Files) {
  testsupport::TempFolder dir;
  for (size_t n : {size_t{0}, size_t{65537}, size_t{300001}}) {
    std::string bytes = RandomBytes(n, static_cast<uint32_t>(n));
    std::string path = dir.Write("f" + std::to_string(n), bytes);
    EXPECT_EQ(OpenSslMd5Hex(bytes, 0, n),
              Kelvane::md5wrapper().getHashFromFile(path))
        << n;
  }
  for (const std::string& path : {dir.File("absent.dat"), dir.path()}) {
    EXPECT_EQ("-1", Kelvane::md5wrapper().getHashFromFile(path)) << path;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.File("absent.dat")));

  std::string path = dir.Write("secret.dat", "content"), out;
  ASSERT_EQ(0, chmod(path.c_str(), 0));
  ASSERT_TRUE(testsupport::RunUnprivileged(
      [&] { return Kelvane::md5wrapper().getHashFromFile(path); }, &out))
      << out;
  EXPECT_EQ("-1", out) << "unreadable for the caller";
}

}  // namespace
