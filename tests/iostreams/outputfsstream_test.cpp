#include "common/iostreams/outputfsstream.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/streamexceptions.h"

#include "iostreams/streamtestutil.h"

namespace {

using streamtest::ReadFile;
using streamtest::TempDir;

void ExpectThrows(const char* text, const std::function<void()>& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception, wanted " << text;
  } catch (const StreamError& e) {
    EXPECT_STREQ(text, e.what());
  }
}

TEST(OutputFSStream, ClosedStreamRefusesWork) {
  OutputFSStream out;
  ExpectThrows("Uninitialized Stream", [&] { out.WriteBytes("a", 1); });
  ExpectThrows("Uninitialized Stream", [&] { out.WriteBytes("", 0); });
  ExpectThrows("Uninitialized Stream", [&] { out.CurPos(); });
  EXPECT_EQ(-1, out.Close());
  out.Flush();
  EXPECT_EQ(nullptr, out.Data());
}

TEST(OutputFSStream, OpenFailures) {
  TempDir dir;
  struct Row {
    const char* name;
    std::string path;
    int flags;
  } rows[] = {
      {"missing without O_CREAT", dir.File("missing"), O_WRONLY},
      {"missing folder", dir.File("no/such/file"), O_WRONLY | O_CREAT},
      {"folder for writing", dir.path(), O_WRONLY},
      {"exclusive on existing", dir.path(), O_WRONLY | O_CREAT | O_EXCL},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    OutputFSStream out;
    ExpectThrows("ACE_OS::open failed!",
                 [&] { out.Open(r.path.c_str(), r.flags); });
    ExpectThrows("Uninitialized Stream", [&] { out.CurPos(); });
  }
}

// Two streams on one file, each write (stream index, text) in turn; whether
// they are open at the same time or one after the other, every write lands
// after the ones before it.
TEST(OutputFSStream, StreamsTakingTurnsAppend) {
  struct Step {
    int stream;
    const char* text;
  };
  struct Row {
    const char* name;
    std::string before;  // file content before, or "-" for no file
    bool bothOpen;
    int flags;
    std::vector<Step> steps;
    std::string after;
  } rows[] = {
      {"one after the other",
       "-",
       false,
       O_WRONLY | O_CREAT,
       {{0, "first,"}, {0, "again,"}, {1, "second"}},
       "first,again,second"},
      {"interleaved",
       "-",
       true,
       O_WRONLY | O_CREAT,
       {{0, "aa"}, {1, "bbb"}, {0, "c"}, {1, ""}, {0, "dd"}},
       "aabbbcdd"},
      {"existing content is kept",
       "old|",
       true,
       O_WRONLY,
       {{1, "x"}, {0, "y"}},
       "old|xy"},
      {"read-write open appends too",
       "0123",
       false,
       O_RDWR,
       {{0, "4"}, {1, "5"}},
       "012345"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    TempDir dir;
    std::string path = dir.File("out.bin");
    if (r.before != "-") streamtest::WriteFile(path, r.before);
    size_t expectedSize = r.before == "-" ? 0 : r.before.size();
    OutputFSStream streams[2];
    int open = -1;
    for (const Step& s : r.steps) {
      if (r.bothOpen) {
        if (open == -1) {
          streams[0].Open(path.c_str(), r.flags);
          streams[1].Open(path.c_str(), r.flags);
          open = 2;
        }
      } else if (open != s.stream) {
        if (open >= 0) {
          EXPECT_EQ(0, streams[open].Close());
        }
        streams[s.stream].Open(path.c_str(), r.flags);
        open = s.stream;
      }
      unsigned n = static_cast<unsigned>(strlen(s.text));
      streams[s.stream].WriteBytes(s.text, n);
      expectedSize += n;
      EXPECT_EQ(expectedSize, streams[s.stream].CurPos());
      EXPECT_EQ(expectedSize, ReadFile(path).size()) << "not written through";
    }
    streams[0].Close();
    streams[1].Close();
    EXPECT_EQ(r.after, ReadFile(path));
  }
}

TEST(OutputFSStream, WriteFailureAndTruncatingOpen) {
  TempDir dir;
  std::string path = dir.File("f");
  streamtest::WriteFile(path, "keep");
  {
    OutputFSStream readOnly;
    EXPECT_EQ(0, readOnly.Open(path.c_str(), O_RDONLY));
    EXPECT_EQ(4u, readOnly.CurPos());
    ExpectThrows("ACE_OS::write_n failed!",
                 [&] { readOnly.WriteBytes("x", 1); });
    EXPECT_EQ(0, readOnly.Close());
    EXPECT_EQ(-1, readOnly.Close());
  }
  EXPECT_EQ("keep", ReadFile(path));
  {
    OutputFSStream out;
    out.Open(path.c_str(), O_WRONLY | O_TRUNC);
    EXPECT_EQ(0u, out.CurPos());
    out.WriteBytes("new", 3);
  }  // the destructor closes
  EXPECT_EQ("new", ReadFile(path));

  OutputFSStream created;
  created.Open(dir.File("created").c_str(), O_WRONLY | O_CREAT);
  struct stat cst;
  ASSERT_EQ(0, stat(dir.File("created").c_str(), &cst));
  mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(0644u & ~mask, cst.st_mode & 0777u);
}

}  // namespace
