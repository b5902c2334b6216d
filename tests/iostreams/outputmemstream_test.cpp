#include "common/iostreams/outputmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "iostreams/streamtestutil.h"
#include "support/testbytes.h"

namespace {

using streamtest::Contents;
using streamtest::RecordingAllocator;

TEST(OutputMemStream, GrowsByDoublingOrByTheWrite) {
  struct Row {
    unsigned initialSize;
    std::vector<unsigned> writes;
    std::vector<size_t> allocations;
  } rows[] = {
      {1024, {1, 1024}, {1024, 2048}},     // overflow doubles
      {1024, {5000}, {5512}},              // large first write: half + write
      {1024, {513}, {1025}},               // one past half
      {0, {1, 1, 1, 1, 1}, {1, 2, 4, 8}},  // zero initial size
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.initialSize << "/" << r.writes[0]);
    RecordingAllocator alloc;
    {
      OutputMemStream out(r.initialSize, 0, &alloc);
      std::string expected;
      for (unsigned w : r.writes) {
        std::string piece = testsupport::RandomBytes(w, w);
        out.WriteBytes(piece.data(), w);
        expected += piece;
      }
      EXPECT_EQ(r.allocations, alloc.requests);
      EXPECT_EQ(expected, expected.empty() ? "" : Contents(out));
    }
    EXPECT_EQ(0, alloc.live) << "blocks not given back";
  }
}

TEST(OutputMemStream, ResetKeepsTheBlockAndInitGivesItBack) {
  RecordingAllocator alloc;
  OutputMemStream out(64, 0, &alloc);
  out.WriteBytes("abcdef", 6);
  const unsigned char* block = out.Data();
  out.Reset();
  EXPECT_EQ(0u, out.CurPos());
  out.WriteBytes("XY", 2);
  EXPECT_EQ(block, out.Data());
  EXPECT_EQ("XYcdef", std::string(reinterpret_cast<const char*>(block), 6));
  out.Init(8, 0, &alloc);
  EXPECT_EQ(0, alloc.live);
  EXPECT_EQ(nullptr, out.Data());
  out.WriteBytes("z", 1);
  EXPECT_EQ((std::vector<size_t>{64, 8}), alloc.requests);
}

TEST(OutputMemStream, StartPositionLeavesZerosInFront) {
  OutputMemStream out(4, 6, nullptr);
  out.WriteBytes("ab", 2);
  EXPECT_EQ(std::string(6, '\0') + "ab", Contents(out));
}

TEST(OutputMemStream, FailedGrowthKeepsDataAndRaisesTheTarget) {
  RecordingAllocator alloc;
  OutputMemStream out(8, 0, &alloc);
  out.WriteBytes("abcd", 4);  // allocates 8
  alloc.refuse_from = 1;
  try {
    out.WriteBytes("0123456789", 10);  // wants 4 + 4 + 10 -> 8 + 10 = 18
    FAIL() << "no exception";
  } catch (const OutputBufferFull& e) {
    EXPECT_STREQ("Allocation Failed!", e.what());
    EXPECT_EQ(nullptr, e.addr());
  }
  EXPECT_EQ("abcd", Contents(out));
  alloc.refuse_from = -1;
  out.WriteBytes("ef", 2);  // still fits the real block: no allocation
  EXPECT_EQ(2u, alloc.requests.size());
  // Past the real block: growth starts from the raised target of 18.
  out.WriteBytes("ghi", 3);
  EXPECT_EQ((std::vector<size_t>{8, 18, 36}), alloc.requests);
  EXPECT_EQ("abcdefghi", Contents(out));
}

}  // namespace
