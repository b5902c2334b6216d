#include "common/iostreams/streamcopy.h"

#include <fcntl.h>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "common/iostreams/inputfsstream.h"
#include "common/iostreams/inputmemstream.h"
#include "common/iostreams/outputfsstream.h"
#include "common/iostreams/outputmemstream.h"
#include "common/iostreams/streamexceptions.h"

#include "iostreams/streamtestutil.h"

namespace {

using streamtest::TempDir;

std::string Bytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 131 + i / 251);
  return s;
}

// Records the size of every write, to see the copy's piece sizes.
class PieceRecorder : public OutputMemStream {
 public:
  PieceRecorder() : OutputMemStream(0, 0, nullptr) {}
  void WriteBytes(const void* data, unsigned count) override {
    pieces.push_back(count);
    OutputMemStream::WriteBytes(data, count);
  }
  std::vector<unsigned> pieces;
};

TEST(StreamCopy, CopiesWhatRemainsInPiecesOfTheScratchSize) {
  struct Row {
    size_t size;
    unsigned skip;  // bytes read before copying
    std::vector<unsigned> pieces;
  } rows[] = {
      {0, 0, {}},
      {1, 0, {1}},
      {49152, 0, {49152}},
      {49153, 0, {49152, 1}},
      {3 * 49152 + 5, 0, {49152, 49152, 49152, 5}},
      {100, 40, {60}},
      {100, 100, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.size << " skip " << r.skip);
    std::string content = Bytes(r.size);
    InputMemStream in(content.data(), static_cast<unsigned>(content.size()));
    std::string skipped(r.skip, '\0');
    ASSERT_EQ(r.skip, in.ReadBytes(skipped.data(), r.skip));
    PieceRecorder out;
    out << in;
    EXPECT_EQ(r.pieces, out.pieces);
    ASSERT_EQ(r.size - r.skip, out.CurPos());
    if (out.CurPos() > 0) {
      EXPECT_EQ(
          content.substr(r.skip),
          std::string(reinterpret_cast<const char*>(out.Data()), out.CurPos()));
    } else {
      EXPECT_EQ(nullptr, out.Data());
    }
  }
}

TEST(StreamCopy, FileToFileAppends) {
  TempDir dir;
  std::string src = dir.File("src"), dst = dir.File("dst");
  std::string content = Bytes(300000);
  streamtest::WriteFile(src, content);
  streamtest::WriteFile(dst, "header:");
  InputFSStream in;
  in.Open(src.c_str());
  OutputFSStream out;
  out.Open(dst.c_str(), O_WRONLY);
  out << in;
  EXPECT_EQ(7 + content.size(), out.CurPos());
  out.Close();
  EXPECT_EQ("header:" + content, streamtest::ReadFile(dst));
}

TEST(StreamCopy, ErrorsOfEitherSidePassThrough) {
  std::string content = "abc";
  InputMemStream in(content.data(), 3);
  OutputFSStream closed;
  try {
    closed << in;
    FAIL() << "no exception";
  } catch (const StreamError& e) {
    EXPECT_STREQ("Uninitialized Stream", e.what());
  }

  InputMemStream empty("");
  EXPECT_NO_THROW(closed << empty) << "nothing to write, nothing to fail";

  InputFSStream unopened;
  OutputMemStream sink(16, 0, nullptr);
  try {
    sink << unopened;
    FAIL() << "no exception";
  } catch (const StreamError& e) {
    EXPECT_STREQ("Stream not Initialized!", e.what());
  }
}

}  // namespace
