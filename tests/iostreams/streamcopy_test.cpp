#include "common/iostreams/streamcopy.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/inputfsstream.h"
#include "common/iostreams/inputmemstream.h"
#include "common/iostreams/outputfsstream.h"
#include "common/iostreams/outputmemstream.h"

#include "iostreams/streamtestutil.h"
#include "support/testbytes.h"

namespace {

using streamtest::ExpectThrows;

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
      {3 * 49152 + 5, 0, {49152, 49152, 49152, 5}},
      {100, 40, {60}},
      {100, 100, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.size << " skip " << r.skip);
    std::string content = testsupport::RandomBytes(r.size, 5);
    InputMemStream in(content.data(), static_cast<unsigned>(content.size()));
    std::string skipped(r.skip, '\0');
    ASSERT_EQ(r.skip, in.ReadBytes(skipped.data(), r.skip));
    PieceRecorder out;
    out << in;
    EXPECT_EQ(r.pieces, out.pieces);
    ASSERT_EQ(r.size - r.skip, out.CurPos());
    if (out.CurPos() > 0) {
      EXPECT_EQ(content.substr(r.skip), streamtest::Contents(out));
    }
  }
}

TEST(StreamCopy, ErrorsOfEitherSidePassThrough) {
  InputMemStream in("abc"), empty("");
  OutputFSStream closed;
  ExpectThrows("Uninitialized Stream", [&] { closed << in; });
  EXPECT_NO_THROW(closed << empty) << "nothing to write, nothing to fail";
  InputFSStream unopened;
  OutputMemStream sink(16, 0, nullptr);
  ExpectThrows("Stream not Initialized!", [&] { sink << unopened; });
}

}  // namespace
