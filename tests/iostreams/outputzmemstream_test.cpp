#include "common/iostreams/outputzmemstream.h"

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/inputzmemstream.h"
#include "common/iostreams/streamexceptions.h"

#include "iostreams/streamtestutil.h"
#include "iostreams/zlibtestutil.h"

namespace {

using streamtest::ImageLike;
using streamtest::InflateOne;
using streamtest::LengthWord;
using streamtest::RandomBytes;
using streamtest::RecordingAllocator;

// Checks that the stream's current block is complete: its length word is
// `written.size()`, plain zlib inflates the rest to `written`, and so does
// InputZMemStream.
void ExpectBlockHolds(const OutputZMemStream& out, const std::string& written) {
  ASSERT_NE(nullptr, out.Data());
  ASSERT_GE(out.CurPos(), 4u + 8u);
  EXPECT_EQ(written.size(), LengthWord(out.Data()));
  std::string inflated;
  EXPECT_TRUE(InflateOne(out.Data() + 4, out.CurPos() - 4, &inflated))
      << "not exactly one complete zlib stream";
  EXPECT_TRUE(inflated == written)
      << "zlib decodes " << inflated.size() << " bytes, " << written.size()
      << " written";
  InputZMemStream in(out.Data(), out.CurPos());
  std::string read(written.size() + 1, '\0');
  size_t got = 0;
  while (unsigned n = in.ReadBytes(&read[got],
                                   static_cast<unsigned>(read.size() - got))) {
    got += n;
    if (got == read.size()) break;
  }
  read.resize(got);
  EXPECT_TRUE(read == written) << "reader gives " << got << " bytes";
}

void Write(OutputZMemStream& out, const std::string& data) {
  out.WriteBytes(data.data(), static_cast<unsigned>(data.size()));
}

TEST(OutputZMemStream, WrittenAndFlushedBlocksDecode) {
  struct Row {
    const char* name;
    std::string data;
    unsigned initialSize;
    int level;
  } rows[] = {
      {"image, default level", ImageLike(300000, 1), 1 << 16, -1},
      {"image, tiny first block", ImageLike(100000, 2), 0, 6},
      {"random, stored", RandomBytes(70000, 3), 5, 0},
      {"random, fastest", RandomBytes(70000, 4), 64, 1},
      {"zeros, best", std::string(1 << 20, '\0'), 100, 9},
      {"one byte", "x", 1 << 10, 6},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    RecordingAllocator alloc;
    {
      OutputZMemStream out(r.initialSize, 0, &alloc, r.level);
      EXPECT_EQ(0u, out.UsedSize());
      Write(out, r.data);
      EXPECT_EQ(0u, out.CurPos()) << "no block before the first flush";
      out.Flush();
      ExpectBlockHolds(out, r.data);
      EXPECT_EQ(out.CurPos(), out.UsedSize());
      EXPECT_EQ(static_cast<unsigned long>(static_cast<float>(out.CurPos()) /
                                           static_cast<float>(r.data.size()) *
                                           100.0f),
                out.GetCompressionRatio());
      // Every growth doubles the block.
      for (size_t i = 1; i < alloc.requests.size(); ++i) {
        EXPECT_EQ(alloc.requests[i - 1] * 2, alloc.requests[i]);
      }
    }
    EXPECT_EQ(0, alloc.live);
  }
}

TEST(OutputZMemStream, CompressionRatioFollowsTheData) {
  OutputZMemStream zeros(1 << 16, 0, nullptr, 6);
  Write(zeros, std::string(100000, '\0'));
  zeros.Flush();
  EXPECT_LT(zeros.GetCompressionRatio(), 2u);

  OutputZMemStream noise(1 << 16, 0, nullptr, 6);
  Write(noise, RandomBytes(100000, 9));
  noise.Flush();
  EXPECT_GE(noise.GetCompressionRatio(), 100u);
  EXPECT_LE(noise.GetCompressionRatio(), 101u);
}

// Random writes of 0 to 1 MiB and flushes: after every flush the block is
// everything written so far, at any level and start size.
TEST(OutputZMemStream, RandomWritesAndFlushes) {
  const uint32_t seeds[] = {1, 7, 42, 1234, 99991};
  for (uint32_t seed : seeds) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 rng(seed);
    const int level = static_cast<int>(rng() % 11) - 1;
    OutputZMemStream out(rng() % 4096, 0, nullptr, level);
    std::string written;
    size_t flushes = 0;
    for (int op = 0; op < 24; ++op) {
      uint32_t pick = rng() % 8;
      if (pick < 2) {
        unsigned before = out.CurPos();
        out.Flush();
        ++flushes;
        if (!written.empty()) {
          ExpectBlockHolds(out, written);
          if (HasFailure()) return;
        } else {
          EXPECT_EQ(before, out.CurPos());
        }
        continue;
      }
      size_t size;
      switch (pick) {
        case 2:
          size = 0;
          break;
        case 3:
          size = rng() % 64;
          break;
        case 4:
          size = rng() % 65536;
          break;
        default:
          size = rng() % ((1 << 20) + 1);
          break;
      }
      std::string data =
          rng() % 3 == 0 ? RandomBytes(size, rng()) : ImageLike(size, rng());
      Write(out, data);
      written += data;
    }
    out.Flush();
    if (!written.empty()) ExpectBlockHolds(out, written);
    EXPECT_GT(flushes, 0u);
  }
}

TEST(OutputZMemStream, FlushTwiceCostsNothingAndWritingGoesOn) {
  RecordingAllocator alloc;
  OutputZMemStream out(64, 0, &alloc, 6);
  out.Flush();  // nothing written: nothing happens
  EXPECT_EQ(0u, out.CurPos());
  EXPECT_EQ(0u, LengthWord(out.Data()));

  std::string first = ImageLike(20000, 5);
  Write(out, first);
  out.Flush();
  ExpectBlockHolds(out, first);
  std::string block(reinterpret_cast<const char*>(out.Data()), out.CurPos());
  size_t allocations = alloc.requests.size();
  out.Flush();
  EXPECT_EQ(block, std::string(reinterpret_cast<const char*>(out.Data()),
                               out.CurPos()));
  EXPECT_EQ(allocations, alloc.requests.size());

  out.WriteBytes("", 0);  // an empty write leaves the block flushed
  out.Flush();
  EXPECT_EQ(block.size(), out.CurPos());

  std::string second = ImageLike(30000, 6);
  Write(out, second);
  out.Flush();
  ExpectBlockHolds(out, first + second);
}

TEST(OutputZMemStream, HeaderSizes) {
  struct Row {
    long headerSize;
    size_t reserved;
  } rows[] = {{0, 4}, {2, 4}, {4, 4}, {16, 16}, {-5, 4}};
  std::string data = ImageLike(5000, 11);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.headerSize);
    OutputZMemStream out(8, r.headerSize, nullptr, 6);
    Write(out, data);
    out.Flush();
    EXPECT_EQ(data.size(), LengthWord(out.Data()));
    EXPECT_EQ(std::string(r.reserved - 4, '\0'),
              std::string(reinterpret_cast<const char*>(out.Data()) + 4,
                          r.reserved - 4));
    std::string inflated;
    EXPECT_TRUE(InflateOne(out.Data() + r.reserved, out.CurPos() - r.reserved,
                           &inflated));
    EXPECT_TRUE(inflated == data);
  }
}

void ExpectThrows(const char* text, const std::function<void()>& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception, wanted " << text;
  } catch (const std::exception& e) {
    EXPECT_STREQ(text, e.what());
  }
}

TEST(OutputZMemStream, UninitialisedClosedAndBadLevel) {
  OutputZMemStream none;
  ExpectThrows("WriteBytes(). Stream not initialized",
               [&] { none.WriteBytes("a", 1); });
  none.Flush();
  none.Close();
  EXPECT_EQ(nullptr, none.Data());
  EXPECT_EQ(0u, none.UsedSize());

  RecordingAllocator alloc;
  OutputZMemStream out(64, 0, &alloc, 6);
  Write(out, "abc");
  out.Close();
  EXPECT_EQ(nullptr, out.Data());
  EXPECT_EQ(0, alloc.live);
  ExpectThrows("WriteBytes(). Stream not initialized",
               [&] { out.WriteBytes("a", 1); });
  out.Close();

  try {
    OutputZMemStream bad(64, 0, &alloc, 10);
    FAIL() << "level 10 accepted";
  } catch (const StreamError& e) {
    EXPECT_STRNE("", e.what());
  }
  EXPECT_EQ(0, alloc.live);

  // Init() again starts a new block.
  out.Init(16, 0, &alloc, 1);
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
  RecordingAllocator growth;
  growth.refuse_from = 1;
  std::string data = RandomBytes(500000, 17);
  OutputZMemStream out(64, 0, &growth, 1);
  ExpectThrows("Could not allocate new storage", [&] { Write(out, data); });
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
  ExpectThrows("Could not allocate new storage", [&] { flushing.Flush(); });
  EXPECT_EQ(0u, flushing.CurPos());
  EXPECT_EQ(0u, flushing.UsedSize());
  small.refuse_from = -1;
  flushing.Flush();  // not taken as flushed by the failed attempt
  ExpectBlockHolds(flushing, held);
}

}  // namespace
