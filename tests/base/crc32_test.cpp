#include "common/base/crc32.h"

#include <filesystem>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <ace/ACE.h>
#include <zlib.h>

#include <gtest/gtest.h>

#include "common/base/internal/crc32kernels.h"

#include "support/runas.h"
#include "support/tempfolder.h"

namespace {

using Kelvane::internal::Crc32;
using Kelvane::internal::Crc32Clmul;
using Kelvane::internal::Crc32ClmulAvailable;
using Kelvane::internal::Crc32Portable;

std::vector<unsigned char> RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(gen());
  return v;
}

uint32_t ZlibCrc(const unsigned char* p, size_t n) {
  return static_cast<uint32_t>(crc32(0L, p, static_cast<uInt>(n)));
}

struct Kernel {
  const char* name;
  uint32_t (*fn)(uint32_t, const void*, size_t);
  bool (*available)();
};

bool Always() { return true; }

void PrintTo(const Kernel& k, std::ostream* os) { *os << k.name; }

const Kernel kKernels[] = {{"portable", Crc32Portable, Always},
                           {"clmul", Crc32Clmul, Crc32ClmulAvailable},
                           {"dispatch", Crc32, Always}};

class CRC32Kernel : public ::testing::TestWithParam<Kernel> {
 protected:
  void SetUp() override {
    if (!GetParam().available()) {
      GTEST_SKIP() << "the processor lacks the instructions of this kernel";
    }
  }
};

TEST_P(CRC32Kernel, MatchesZlibForEveryShortLengthAndOffset) {
  std::vector<unsigned char> buf = RandomBytes(300 + 16, 1);
  for (size_t offset = 0; offset < 4; ++offset) {
    for (size_t n = 0; n <= 300; ++n) {
      ASSERT_EQ(ZlibCrc(buf.data() + offset, n),
                GetParam().fn(0, buf.data() + offset, n))
          << "length " << n << " offset " << offset;
    }
  }
}

TEST_P(CRC32Kernel, MatchesZlibOnLargeInputsAndWhenChained) {
  const size_t sizes[] = {1 << 20, (1 << 20) + 13, 100003, 4096 + 63};
  for (size_t n : sizes) {
    std::vector<unsigned char> buf =
        RandomBytes(n + 1, static_cast<unsigned>(n));
    uint32_t want = ZlibCrc(buf.data() + 1, n);
    EXPECT_EQ(want, GetParam().fn(0, buf.data() + 1, n)) << n;
    // Any split point: the CRC of the first part seeds the second.
    for (size_t cut : {size_t{1}, size_t{64}, n / 3, n - 17}) {
      uint32_t first = GetParam().fn(0, buf.data() + 1, cut);
      EXPECT_EQ(want, GetParam().fn(first, buf.data() + 1 + cut, n - cut))
          << n << " cut at " << cut;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, CRC32Kernel, ::testing::ValuesIn(kKernels),
                         [](const ::testing::TestParamInfo<Kernel>& info) {
                           return std::string(info.param.name);
                         });

TEST(CRC32, EqualsAceCrc32) {
  std::vector<unsigned char> buf = RandomBytes(70000, 7);
  for (size_t n : {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{1000},
                   size_t{70000}}) {
    EXPECT_EQ(ACE::crc32(buf.data(), n, 0), Crc32(0, buf.data(), n)) << n;
  }
}

class CalculateCRC32Test : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dir_.ok()); }
  testsupport::TempFolder dir_;
};

TEST_F(CalculateCRC32Test, FilesOfVariousSizes) {
  const size_t sizes[] = {1, 4095, 4096, 4097, (1 << 20) + 3};
  for (size_t n : sizes) {
    SCOPED_TRACE(n);
    std::vector<unsigned char> bytes = RandomBytes(n, static_cast<unsigned>(n));
    std::string path = dir_.Write("f" + std::to_string(n),
                                  std::string(bytes.begin(), bytes.end()));
    unsigned long crc = 12345;
    EXPECT_EQ(0, Kelvane::CalculateCRC32(path.c_str(), crc));
    EXPECT_EQ(ZlibCrc(bytes.data(), n), crc);
  }
}

TEST_F(CalculateCRC32Test, MissingFileIsCreatedEmpty) {
  std::string path = dir_.File("absent.dat");
  unsigned long crc = 12345;
  EXPECT_EQ(0, Kelvane::CalculateCRC32(path.c_str(), crc));
  EXPECT_EQ(0u, crc);
  ASSERT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(0u, std::filesystem::file_size(path));
  // The empty file it left behind gives the same answer.
  crc = 12345;
  EXPECT_EQ(0, Kelvane::CalculateCRC32(path.c_str(), crc));
  EXPECT_EQ(0u, crc);
}

TEST_F(CalculateCRC32Test, UnmappablePathsGiveTheCrcOfNoBytes) {
  struct Row {
    const char* what;
    std::string path;
  } rows[] = {
      {"folder", dir_.path()},
      {"under a missing folder", dir_.File("no/such/file")},
      {"empty path", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    unsigned long crc = 12345;
    EXPECT_EQ(0, Kelvane::CalculateCRC32(r.path.c_str(), crc));
    EXPECT_EQ(0u, crc);
  }
  EXPECT_FALSE(std::filesystem::exists(dir_.File("no")));
}

TEST_F(CalculateCRC32Test, FileThatCannotBeOpenedReadWrite) {
  // Readable but not writable for the caller: the read-write open fails, so
  // the answer is the CRC of no bytes even though the file has content.
  struct Row {
    const char* name;
    mode_t mode;
  } rows[] = {{"readonly.dat", 0444}, {"noaccess.dat", 0000}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::string path = dir_.Write(r.name, "some content");
    ASSERT_EQ(0, chmod(path.c_str(), r.mode));
    std::string out;
    ASSERT_TRUE(testsupport::RunUnprivileged(
        [&] {
          unsigned long crc = 12345;
          int rc = Kelvane::CalculateCRC32(path.c_str(), crc);
          return std::to_string(rc) + " " + std::to_string(crc);
        },
        &out))
        << out;
    EXPECT_EQ("0 0", out);
    EXPECT_EQ(12u, std::filesystem::file_size(path));
  }
}

}  // namespace
