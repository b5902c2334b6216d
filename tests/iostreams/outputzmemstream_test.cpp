#include "common/iostreams/outputzmemstream.h"

#include <random>
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

// Checks that the stream's current block is complete: its length word is
// `written.size()`, plain zlib inflates the rest to `written`, and so does
// InputZMemStream.
void ExpectBlockHolds(const OutputZMemStream& out, const std::string& written) {
  ASSERT_NE(nullptr, out.Data());
  ASSERT_GE(out.CurPos(), 4u + 8u);
  EXPECT_EQ(written.size(), LengthWord(out.Data()));
  EXPECT_TRUE(streamtest::InflatesTo(out.Data() + 4, out.CurPos() - 4, written))
      << "not exactly one complete zlib stream of what was written";
  InputZMemStream in(out.Data(), out.CurPos());
  std::string read(written.size() + 1, '\0');
  size_t got = 0;
  while (got < read.size()) {
    unsigned n =
        in.ReadBytes(&read[got], static_cast<unsigned>(read.size() - got));
    if (n == 0) break;
    got += n;
  }
  EXPECT_TRUE(read.substr(0, got) == written)
      << "reader gives " << got << " bytes";
}

void Write(OutputZMemStream& out, const std::string& data) {
  out.WriteBytes(data.data(), static_cast<unsigned>(data.size()));
}

TEST(OutputZMemStream, WrittenAndFlushedBlocksDecode) {
  struct Row {
    std::string data;
    unsigned initialSize;
    int level;
  } rows[] = {
      {ImageLike(300000, 1), 1 << 16, -1},
      {RandomBytes(70000, 3), 5, 0},
      {std::string(1 << 20, '\0'), 0, 9},
      {"x", 1 << 10, 6},
  };
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
      EXPECT_EQ(static_cast<unsigned long>(static_cast<float>(out.CurPos()) /
                                           static_cast<float>(r.data.size()) *
                                           100.0f),
                out.GetCompressionRatio());
      for (size_t i = 1; i < alloc.requests.size(); ++i) {
        EXPECT_EQ(alloc.requests[i - 1] * 2, alloc.requests[i])
            << "not doubled";
      }
    }
    EXPECT_EQ(0, alloc.live);
  }
}

// Random writes of 0 to 1 MiB and flushes: after every flush the block is
// everything written so far, at any level and start size.
TEST(OutputZMemStream, RandomWritesAndFlushes) {
  const uint32_t kMaxSize[] = {0, 0, 0, 63, 65535, 1 << 20, 1 << 20, 1 << 20};
  for (uint32_t seed : {1u, 7u, 42u, 1234u, 99991u}) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    OutputZMemStream out(rng() % 4096, 0, nullptr,
                         static_cast<int>(rng() % 11) - 1);
    std::string written;
    for (int op = 0; op < 24; ++op) {
      uint32_t pick = rng() % 8;
      if (pick < 2) {  // flush
        unsigned before = out.CurPos();
        out.Flush();
        if (written.empty()) {
          EXPECT_EQ(before, out.CurPos());
        } else {
          ExpectBlockHolds(out, written);
        }
        if (HasFailure()) return;
        continue;
      }
      size_t size = rng() % (kMaxSize[pick] + 1);
      std::string data =
          rng() % 3 == 0 ? RandomBytes(size, rng()) : ImageLike(size, rng());
      Write(out, data);
      written += data;
    }
    out.Flush();
    if (!written.empty()) ExpectBlockHolds(out, written);
  }
}

TEST(OutputZMemStream, FlushTwiceCostsNothingAndWritingGoesOn) {
  RecordingAllocator alloc;
  OutputZMemStream out(64, 0, &alloc, 6);
  out.Flush();  // nothing written: nothing happens
  EXPECT_EQ(0u, out.CurPos());
  EXPECT_EQ(0u, LengthWord(out.Data()));

  std::string first = ImageLike(20000, 5), second = ImageLike(30000, 6);
  Write(out, first);
  out.Flush();
  std::string block = Contents(out);
  size_t allocations = alloc.requests.size();
  out.Flush();
  out.WriteBytes("", 0);  // an empty write leaves the block flushed
  out.Flush();
  EXPECT_EQ(block, Contents(out));
  EXPECT_EQ(allocations, alloc.requests.size());
  Write(out, second);
  out.Flush();
  ExpectBlockHolds(out, first + second);
}

TEST(OutputZMemStream, HeaderSizes) {
  struct Row {
    long headerSize;
    size_t reserved;
  } rows[] = {{2, 4}, {16, 16}, {-5, 4}};
  std::string data = ImageLike(5000, 11);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.headerSize);
    OutputZMemStream out(8, r.headerSize, nullptr, 6);
    Write(out, data);
    out.Flush();
    EXPECT_EQ(data.size(), LengthWord(out.Data()));
    EXPECT_EQ(std::string(r.reserved - 4, '\0'),
              Contents(out).substr(4, r.reserved - 4));
    EXPECT_TRUE(streamtest::InflatesTo(out.Data() + r.reserved,
                                       out.CurPos() - r.reserved, data));
  }
}

TEST(OutputZMemStream, UninitialisedClosedAndBadLevel) {
  const char* kNotOpen = "WriteBytes(). Stream not initialized";
  OutputZMemStream none;
  ExpectThrows(kNotOpen, [&] { none.WriteBytes("a", 1); });
  none.Flush();
  none.Close();
  EXPECT_EQ(nullptr, none.Data());

  RecordingAllocator alloc;
  OutputZMemStream out(64, 0, &alloc, 6);
  Write(out, "abc");
  out.Close();
  EXPECT_EQ(nullptr, out.Data());
  EXPECT_EQ(0, alloc.live);
  ExpectThrows(kNotOpen, [&] { out.WriteBytes("a", 1); });

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
  RecordingAllocator growth;
  growth.refuse_from = 1;
  std::string data = RandomBytes(500000, 17);
  OutputZMemStream out(64, 0, &growth, 1);
  ExpectThrows(kGrowth, [&] { Write(out, data); });
  growth.refuse_from = -1;
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
  EXPECT_EQ(1u, small.requests.size());
  ExpectThrows(kGrowth, [&] { flushing.Flush(); });
  EXPECT_EQ(0u, flushing.CurPos());
  EXPECT_EQ(0u, flushing.UsedSize());
  small.refuse_from = -1;
  flushing.Flush();  // not taken as flushed by the failed attempt
  ExpectBlockHolds(flushing, held);
}

}  // namespace
