#include "common/iostreams/outputzmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/inputzmemstream.h"

#include "iostreams/streamtestutil.h"
#include "iostreams/zlibtestutil.h"
#include "support/testbytes.h"

namespace {

using streamtest::Contents;
using streamtest::ExpectThrows;
using streamtest::ImageLike;
using streamtest::LengthWord;
using streamtest::RecordingAllocator;
using testsupport::RandomBytes;

// The current block is complete: its length word is `written.size()`, and
// both plain zlib and InputZMemStream inflate the rest to `written`.
void ExpectBlockHolds(const OutputZMemStream& out, const std::string& written) {
  ASSERT_NE(nullptr, out.Data());
  EXPECT_EQ(written.size(), LengthWord(out.Data()));
  EXPECT_TRUE(streamtest::InflatesTo(out.Data() + 4, out.CurPos() - 4, written))
      << "not exactly one complete zlib stream of what was written";
  InputZMemStream in(out.Data(), out.CurPos());
  std::string read(written.size() + 1, '\0');
  size_t got = 0;
  while (unsigned n = in.ReadBytes(&read[got],
                                   static_cast<unsigned>(read.size() - got))) {
    got += n;
  }
  EXPECT_TRUE(read.substr(0, got) == written) << "reader gives " << got;
}

void Write(OutputZMemStream& out, const std::string& data) {
  out.WriteBytes(data.data(), static_cast<unsigned>(data.size()));
}

TEST(OutputZMemStream, WrittenAndFlushedBlocksDecode) {
  struct Row {
    std::string data;
    unsigned initialSize;
    int level;
  } rows[] = {{ImageLike(300000, 1), 1 << 16, -1},
              {std::string(1 << 20, '\0'), 0, 9}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.level);
    RecordingAllocator alloc;
    {
      OutputZMemStream out(r.initialSize, 0, &alloc, r.level);
      Write(out, r.data);
      EXPECT_EQ(0u, out.CurPos()) << "no block before the first flush";
      out.Flush();
      ExpectBlockHolds(out, r.data);
      EXPECT_EQ(out.CurPos(), out.UsedSize());
      for (size_t i = 1; i < alloc.requests.size(); ++i) {
        EXPECT_EQ(alloc.requests[i - 1] * 2, alloc.requests[i]) << i;
      }
    }
    EXPECT_EQ(0, alloc.live);
  }
}

// A flush with nothing new leaves the block alone; later writes extend it.
TEST(OutputZMemStream, RepeatedFlushes) {
  std::string a = ImageLike(100000, 5), b = RandomBytes(70000, 6);
  OutputZMemStream out(5, 0, nullptr, 0);
  out.Flush();
  EXPECT_EQ(0u, out.CurPos());
  Write(out, a);
  out.Flush();
  unsigned const size = out.CurPos();
  out.Flush();
  EXPECT_EQ(size, out.CurPos());
  ExpectBlockHolds(out, a);
  Write(out, b);
  out.Flush();
  ExpectBlockHolds(out, a + b);
}

TEST(OutputZMemStream, HeaderSizes) {
  std::string data = ImageLike(5000, 11);
  for (long headerSize : {2L, 16L}) {
    SCOPED_TRACE(headerSize);
    size_t reserved = headerSize > 4 ? static_cast<size_t>(headerSize) : 4;
    OutputZMemStream out(8, headerSize, nullptr, 6);
    Write(out, data);
    out.Flush();
    EXPECT_EQ(data.size(), LengthWord(out.Data()));
    EXPECT_EQ(std::string(reserved - 4, '\0'),
              Contents(out).substr(4, reserved - 4));
    EXPECT_TRUE(streamtest::InflatesTo(out.Data() + reserved,
                                       out.CurPos() - reserved, data));
  }
}

TEST(OutputZMemStream, UninitialisedClosedAndBadLevel) {
  const char* kNotOpen = "WriteBytes(). Stream not initialized";
  RecordingAllocator alloc;
  OutputZMemStream out(64, 0, &alloc, 6);
  Write(out, "abc");
  out.Close();
  EXPECT_EQ(nullptr, out.Data());
  EXPECT_EQ(0, alloc.live);
  ExpectThrows(kNotOpen, [&] { out.WriteBytes("a", 1); });
  out.Flush();

  EXPECT_THROW(OutputZMemStream(64, 0, &alloc, 10), StreamError);
  EXPECT_EQ(0, alloc.live);

  out.Init(16, 0, &alloc, 1);  // Init() again starts a new block
  Write(out, "hello");
  out.Flush();
  ExpectBlockHolds(out, "hello");
}

TEST(OutputZMemStream, AllocationFailures) {
  RecordingAllocator alloc;
  alloc.refuse_from = 0;
  try {
    OutputZMemStream out(64, 0, &alloc, 6);
    FAIL() << "no exception";
  } catch (const OutputBufferFull& e) {
    EXPECT_STREQ("Allocation Failed!", e.what());
    EXPECT_EQ(nullptr, e.addr());
  }
  EXPECT_EQ(0, alloc.live);

  // Growth refused while writing: the block keeps what deflate took.
  const char* kGrowth = "Could not allocate new storage";
  alloc.refuse_from = 1;
  alloc.requests.clear();
  std::string data = RandomBytes(500000, 17);
  OutputZMemStream out(64, 0, &alloc, 1);
  ExpectThrows(kGrowth, [&] { Write(out, data); });
  alloc.refuse_from = -1;
  out.Flush();
  uint32_t taken = LengthWord(out.Data());
  EXPECT_LT(taken, data.size());
  ExpectBlockHolds(out, data.substr(0, taken));
  Write(out, data.substr(taken));
  out.Flush();
  ExpectBlockHolds(out, data);

  // Growth refused while flushing: zlib holds a small write back, so the
  // finish needs more room than the 64-byte block has.
  RecordingAllocator small;
  std::string held = RandomBytes(200, 18);
  OutputZMemStream flushing(64, 0, &small, 1);
  small.refuse_from = 1;
  Write(flushing, held);
  ExpectThrows(kGrowth, [&] { flushing.Flush(); });
  EXPECT_EQ(0u, flushing.UsedSize());
  small.refuse_from = -1;
  flushing.Flush();  // not taken as flushed by the failed attempt
  ExpectBlockHolds(flushing, held);
}

}  // namespace
