#include "common/iostreams/outputfsstream.h"

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "iostreams/streamtestutil.h"
#include "support/tempfolder.h"

namespace {

using streamtest::ExpectThrows;
using testsupport::TempFolder;

TEST(OutputFSStream, ClosedOrFailedOpenRefusesWork) {
  TempFolder dir;
  const char* kNotOpen = "Uninitialized Stream";
  OutputFSStream closed;
  ExpectThrows(kNotOpen, [&] { closed.WriteBytes("", 0); });
  EXPECT_EQ(-1, closed.Close());
  OutputFSStream out;
  ExpectThrows("ACE_OS::open failed!",
               [&] { out.Open(dir.File("missing").c_str(), O_WRONLY); });
  ExpectThrows(kNotOpen, [&] { out.CurPos(); });
}

// Every write lands at the end of the file, wherever other streams on the
// same file have moved it, whether open at the same time or in turn.
TEST(OutputFSStream, StreamsTakingTurnsAppend) {
  TempFolder dir;
  std::string path = dir.Write("out.bin", "old|");
  OutputFSStream a, b;
  a.Open(path.c_str(), O_WRONLY);
  b.Open(path.c_str(), O_RDWR);
  struct Step {
    OutputFSStream* stream;
    const char* text;
  } steps[] = {{&a, "aa"}, {&b, "b"}, {&a, ""}, {&a, "c"}, {&b, "dd"}};
  size_t size = 4;
  for (const Step& s : steps) {
    s.stream->WriteBytes(s.text, static_cast<unsigned>(strlen(s.text)));
    size += strlen(s.text);
    EXPECT_EQ(size, s.stream->CurPos()) << s.text;
    EXPECT_EQ(size, TempFolder::Read(path).size()) << "not written through";
  }
  EXPECT_EQ(0, a.Close());
  a.Open(path.c_str(), O_WRONLY);
  a.WriteBytes("!", 1);
  EXPECT_EQ("old|aabcdd!", TempFolder::Read(path));
}

TEST(OutputFSStream, WriteFailureTruncationAndCreationMode) {
  TempFolder dir;
  std::string path = dir.Write("f", "keep");
  {
    OutputFSStream readOnly;
    EXPECT_EQ(0, readOnly.Open(path.c_str(), O_RDONLY));
    ExpectThrows("ACE_OS::write_n failed!",
                 [&] { readOnly.WriteBytes("x", 1); });
    EXPECT_EQ(0, readOnly.Close());
  }
  EXPECT_EQ("keep", TempFolder::Read(path));
  {
    OutputFSStream out;
    out.Open(path.c_str(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(0u, out.CurPos());
    out.WriteBytes("new", 3);
  }  // the destructor closes
  EXPECT_EQ("new", TempFolder::Read(path));

  OutputFSStream created;
  created.Open(dir.File("created").c_str(), O_WRONLY | O_CREAT);
  struct stat st;
  ASSERT_EQ(0, stat(dir.File("created").c_str(), &st));
  mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(0644u & ~mask, st.st_mode & 0777u);
}

}  // namespace
