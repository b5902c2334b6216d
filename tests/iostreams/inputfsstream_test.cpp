#include "common/iostreams/inputfsstream.h"

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "iostreams/streamtestutil.h"
#include "support/tempfolder.h"
#include "support/testbytes.h"

namespace {

using streamtest::ExpectThrows;

TEST(InputFSStream, ReadsWholeFilesOfManySizes) {
  testsupport::TempFolder dir;
  for (size_t size : {size_t{0}, size_t{1} << 20}) {
    SCOPED_TRACE(size);
    std::string content = testsupport::RandomBytes(size, 1);
    InputFSStream in;
    in.Open(dir.Write("f.bin", content).c_str());
    EXPECT_EQ(size, in.Size());
    std::string seen;
    std::vector<char> buf(1000);
    while (unsigned n = in.ReadBytes(buf.data(), 1000)) {
      seen.append(buf.data(), n);
      ASSERT_EQ(seen.size(), in.CurPos());
    }
    EXPECT_EQ(content, seen);
  }
}

TEST(InputFSStream, FailedOpensAndReopen) {
  testsupport::TempFolder dir;
  std::string a = dir.Write("a", "first file"), b = dir.Write("b", "second");
  for (const std::string& bad : {dir.File("missing"), dir.path()}) {
    SCOPED_TRACE(bad);
    InputFSStream in;
    in.Open(a.c_str());  // an earlier file is let go on failure
    ExpectThrows("Map Failed!", [&] { in.Open(bad.c_str()); });
    EXPECT_EQ(0u, in.Size());
    ExpectThrows("Stream not Initialized!", [&] { in.CurPos(); });
  }
  InputFSStream in;
  in.Open(a.c_str());
  char buf[32];
  EXPECT_EQ(5u, in.ReadBytes(buf, 5));
  in.Open(b.c_str());
  EXPECT_EQ(0u, in.CurPos());
  EXPECT_EQ("second", std::string(buf, in.ReadBytes(buf, sizeof buf)));
}

// Sparse files past 2 GiB exercise every width in the size path; 4 GiB no
// longer fits the 32-bit size and is refused.
TEST(InputFSStream, LargeFiles) {
  testsupport::TempFolder dir;
  for (uint64_t size : {(uint64_t{1} << 31) + 4099, uint64_t{1} << 32}) {
    SCOPED_TRACE(size);
    std::string path = dir.File("large");
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
    ASSERT_EQ(4, pwrite(fd, "TAIL", 4, static_cast<off_t>(size - 4)));
    close(fd);
    InputFSStream in;
    if (size >> 32) {
      ExpectThrows("Map Failed!", [&] { in.Open(path.c_str()); });
      continue;
    }
    in.Open(path.c_str());
    ASSERT_EQ(size, in.Size());
    std::vector<char> buf(1 << 20);
    uint64_t total = 0;
    std::string last;
    while (unsigned n = in.ReadBytes(buf.data(), 1 << 20)) {
      total += n;
      if (n >= 4) last.assign(buf.data() + n - 4, 4);
    }
    EXPECT_EQ(size, total);
    EXPECT_EQ("TAIL", last);
    EXPECT_EQ(size, in.CurPos());
  }
}

}  // namespace
