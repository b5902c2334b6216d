#include "common/base/crc32.h"

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <zlib.h>

#include <gtest/gtest.h>

#include "common/base/internal/crc32kernels.h"

#include "support/runas.h"
#include "support/tempfolder.h"
#include "support/testbytes.h"

namespace {

using testsupport::RandomBytes;
using testsupport::U8;

uint32_t ZlibCrc(const std::string& s, size_t offset, size_t n) {
  return static_cast<uint32_t>(crc32(0L, U8(s) + offset, static_cast<uInt>(n)));
}

bool Always() { return true; }

TEST(CRC32Kernels, MatchZlibForEveryShortLengthOffsetAndSplit) {
  const struct {
    const char* name;
    uint32_t (*fn)(uint32_t, const void*, size_t);
    bool (*available)();
  } kernels[] = {{"portable", Kelvane::internal::Crc32Portable, Always},
                 {"clmul", Kelvane::internal::Crc32Clmul,
                  Kelvane::internal::Crc32ClmulAvailable},
                 {"dispatch", Kelvane::internal::Crc32, Always}};
  const std::string buf = RandomBytes(300 + 16, 1);
  for (const auto& k : kernels) {
    if (!k.available()) continue;
    SCOPED_TRACE(k.name);
    for (size_t offset = 0; offset < 4; ++offset) {
      for (size_t n = 0; n <= 300; ++n) {
        ASSERT_EQ(ZlibCrc(buf, offset, n), k.fn(0, U8(buf) + offset, n))
            << "length " << n << " offset " << offset;
      }
    }
    // Any split point: the CRC of the first part seeds the second.
    const size_t n = 100003;
    std::string big = RandomBytes(n + 1, 3);
    for (size_t cut : {size_t{0}, size_t{1}, n / 3, n - 17}) {
      uint32_t first = k.fn(0, U8(big) + 1, cut);
      EXPECT_EQ(ZlibCrc(big, 1, n), k.fn(first, U8(big) + 1 + cut, n - cut))
          << cut;
    }
  }
}

// The return code and CRC of `path`, with the CRC primed to garbage.
std::string Crc(const std::string& path) {
  unsigned long crc = 12345;
  int rc = Kelvane::CalculateCRC32(path.c_str(), crc);
  return std::to_string(rc) + " " + std::to_string(crc);
}

TEST(CalculateCRC32, FilesOfVariousSizes) {
  testsupport::TempFolder dir;
  for (size_t n : {size_t{1}, (size_t{1} << 20) + 3}) {
    std::string bytes = RandomBytes(n, static_cast<uint32_t>(n));
    std::string path = dir.Write("f" + std::to_string(n), bytes);
    EXPECT_EQ("0 " + std::to_string(ZlibCrc(bytes, 0, n)), Crc(path)) << n;
  }
}

// A missing file is created empty; paths that cannot be mapped, and files
// the caller cannot open read-write, give the CRC of no bytes.
TEST(CalculateCRC32, UnmappablePathsGiveTheCrcOfNoBytes) {
  testsupport::TempFolder dir;
  std::string absent = dir.File("absent.dat");
  for (const std::string& path :
       {absent, absent, dir.path(), dir.File("no/such")}) {
    EXPECT_EQ("0 0", Crc(path)) << path;
  }
  EXPECT_EQ(0u, std::filesystem::file_size(absent));
  EXPECT_FALSE(std::filesystem::exists(dir.File("no")));

  std::string readOnly = dir.Write("readonly.dat", "some content");
  ASSERT_EQ(0, chmod(readOnly.c_str(), 0444));
  std::string out;
  ASSERT_TRUE(testsupport::RunUnprivileged([&] { return Crc(readOnly); }, &out))
      << out;
  EXPECT_EQ("0 0", out);
  EXPECT_EQ(12u, std::filesystem::file_size(readOnly));
}

}  // namespace
