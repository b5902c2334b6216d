#include "common/iostreams/inputfsstream.h"

#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/streamexceptions.h"

#include "iostreams/streamtestutil.h"

namespace {

using streamtest::TempDir;

std::string Bytes(size_t n) {
  std::string s(n, '\0');
  uint32_t x = 12345;
  for (auto& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

void ExpectThrows(const char* text, const std::function<void()>& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception, wanted " << text;
  } catch (const StreamError& e) {
    EXPECT_STREQ(text, e.what());
  }
}

TEST(InputFSStream, ReadsWholeFilesOfManySizes) {
  TempDir dir;
  const size_t sizes[] = {0, 1, 4095, 4096, 4097, 49153, (1u << 20) + 7};
  for (size_t size : sizes) {
    SCOPED_TRACE(size);
    std::string path = dir.File("f.bin");
    std::string content = Bytes(size);
    streamtest::WriteFile(path, content);
    InputFSStream in;
    in.Open(path.c_str());
    EXPECT_EQ(size, in.Size());
    std::string seen;
    std::vector<char> buf(1000);
    while (unsigned n = in.ReadBytes(buf.data(), 1000)) {
      seen.append(buf.data(), n);
      ASSERT_EQ(seen.size(), in.CurPos());
    }
    EXPECT_EQ(content, seen);
    EXPECT_EQ(0u, in.ReadBytes(buf.data(), 1000));
  }
}

TEST(InputFSStream, UnopenedAndFailedOpens) {
  TempDir dir;
  std::string good = dir.File("good");
  streamtest::WriteFile(good, "data");
  std::string unreadable = dir.File("unreadable");
  streamtest::WriteFile(unreadable, "secret");
  chmod(unreadable.c_str(), 0);
  const bool root = geteuid() == 0;

  struct Row {
    const char* name;
    std::string path;
  } rows[] = {
      {"missing", dir.File("missing")},
      {"folder", dir.path()},
      {"missing parent", dir.File("no/such")},
      {"empty path", ""},
      {"unreadable", unreadable},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    if (r.path == unreadable && root) continue;  // root reads anything
    InputFSStream in;
    in.Open(good.c_str());  // an earlier file is let go on failure
    ExpectThrows("Map Failed!", [&] { in.Open(r.path.c_str()); });
    EXPECT_EQ(0u, in.Size());
    char buf[4];
    ExpectThrows("Stream not Initialized!", [&] { in.ReadBytes(buf, 4); });
    ExpectThrows("Stream not Initialized!", [&] { in.CurPos(); });
  }
}

TEST(InputFSStream, ReopenStartsOverOnTheNewFile) {
  TempDir dir;
  streamtest::WriteFile(dir.File("a"), "first file");
  streamtest::WriteFile(dir.File("b"), "second");
  InputFSStream in;
  in.Open(dir.File("a").c_str());
  char buf[32];
  EXPECT_EQ(5u, in.ReadBytes(buf, 5));
  in.Open(dir.File("b").c_str());
  EXPECT_EQ(0u, in.CurPos());
  EXPECT_EQ(6u, in.Size());
  ASSERT_EQ(6u, in.ReadBytes(buf, sizeof buf));
  EXPECT_EQ("second", std::string(buf, 6));
}

// Files larger than 2 GiB exercise every width in the size path; the file
// is sparse, with marked bytes at both ends.
TEST(InputFSStream, MapsFilesPastTwoGiB) {
  TempDir dir;
  std::string path = dir.File("large");
  const uint64_t size = (uint64_t{1} << 31) + 4099;
  int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
  ASSERT_EQ(4, pwrite(fd, "HEAD", 4, 0));
  ASSERT_EQ(4, pwrite(fd, "TAIL", 4, static_cast<off_t>(size - 4)));
  close(fd);

  InputFSStream in;
  in.Open(path.c_str());
  ASSERT_EQ(size, in.Size());
  std::vector<char> buf(1 << 20);
  unsigned n = in.ReadBytes(buf.data(), 4);
  EXPECT_EQ("HEAD", std::string(buf.data(), n));
  uint64_t total = n;
  std::string last;
  while ((n = in.ReadBytes(buf.data(), static_cast<unsigned>(buf.size())))) {
    total += n;
    if (n >= 4) last.assign(buf.data() + n - 4, 4);
  }
  EXPECT_EQ(size, total);
  EXPECT_EQ("TAIL", last);
  EXPECT_EQ(size, in.CurPos());
}

TEST(InputFSStream, RefusesFilesThatDoNotFitThirtyTwoBits) {
  TempDir dir;
  std::string path = dir.File("huge");
  int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(uint64_t{1} << 32)));
  close(fd);
  InputFSStream in;
  ExpectThrows("Map Failed!", [&] { in.Open(path.c_str()); });
  EXPECT_EQ(0u, in.Size());
}

}  // namespace
