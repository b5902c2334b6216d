#include "common/base/md5wrapper.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "common/base/internal/md5kernels.h"

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
  unsigned char digest[16];
  for (int i = 0; i < 16; ++i) digest[i] = static_cast<unsigned char>(i * 17);
  EXPECT_EQ("00112233445566778899aabbccddeeff", md5.convToString(digest));
}

TEST(md5wrapper, StreamingInAnyPiecesEqualsOneShot) {
  Kelvane::internal::Md5Engine engine;
  const std::string buf = RandomBytes(5000, 6);
  for (size_t piece :
       {size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{1000}}) {
    Kelvane::internal::Md5Context ctx;
    engine.Init(ctx);
    for (size_t at = 0; at < buf.size(); at += piece) {
      engine.Update(ctx, U8(buf) + at, std::min(piece, buf.size() - at));
    }
    unsigned char got[16];
    engine.Final(ctx, got);
    EXPECT_EQ(testsupport::OpenSslDigest(EVP_md5(), buf.data(), buf.size()),
              std::string(reinterpret_cast<char*>(got), 16))
        << piece;
  }
}

TEST(md5wrapper, Files) {
  testsupport::TempFolder dir;
  for (size_t n : {size_t{0}, size_t{1024}, size_t{65537}, size_t{300001}}) {
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

  // Unreadable for the caller: "-1"; readable again: the digest.
  std::string path = dir.Write("secret.dat", "content");
  for (mode_t mode : {0000, 0444}) {
    ASSERT_EQ(0, chmod(path.c_str(), mode));
    std::string out;
    ASSERT_TRUE(testsupport::RunUnprivileged(
        [&] { return Kelvane::md5wrapper().getHashFromFile(path); }, &out))
        << out;
    EXPECT_EQ(mode ? OpenSslMd5Hex("content", 0, 7) : "-1", out) << mode;
  }
}

}  // namespace
