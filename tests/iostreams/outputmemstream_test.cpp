#include "common/iostreams/outputmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/streamexceptions.h"

#include "iostreams/streamtestutil.h"

namespace {

using streamtest::RecordingAllocator;

std::string Pattern(size_t n, size_t offset) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i + offset) * 7);
  return s;
}

TEST(OutputMemStream, GrowsByDoublingOrByTheWrite) {
  struct Row {
    const char* name;
    unsigned initialSize;
    std::vector<unsigned> writes;
    std::vector<size_t> allocations;
  } rows[] = {
      {"small first write gets the initial size", 1024, {1}, {1024}},
      {"overflow doubles", 1024, {1, 1024}, {1024, 2048}},
      {"large first write gets half plus the write", 1024, {5000}, {5512}},
      {"half exactly fits", 1024, {512, 512}, {1024}},
      {"one past half", 1024, {513}, {1025}},
      {"zero initial size", 0, {1, 1, 1, 1, 1}, {1, 2, 4, 8}},
      {"odd initial size halves down", 101, {50, 50, 1}, {100, 200}},
      {"zero-length writes allocate nothing", 64, {0, 0}, {}},
      {"large write after small", 16, {1, 100, 1}, {16, 116}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    RecordingAllocator alloc;
    {
      OutputMemStream out(r.initialSize, 0, &alloc);
      EXPECT_EQ(nullptr, out.Data());
      std::string expected;
      for (unsigned w : r.writes) {
        std::string piece = Pattern(w, expected.size());
        out.WriteBytes(piece.data(), w);
        expected += piece;
        ASSERT_EQ(expected.size(), out.CurPos());
      }
      EXPECT_EQ(r.allocations, alloc.requests);
      if (!expected.empty()) {
        EXPECT_EQ(expected,
                  std::string(reinterpret_cast<const char*>(out.Data()),
                              out.CurPos()));
      }
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
  EXPECT_EQ(1u, alloc.requests.size());

  out.Init(8, 0, &alloc);
  EXPECT_EQ(0, alloc.live);
  EXPECT_EQ(nullptr, out.Data());
  out.WriteBytes("z", 1);
  EXPECT_EQ(8u, alloc.requests.back());
}

TEST(OutputMemStream, StartPositionLeavesZerosInFront) {
  struct Row {
    unsigned initialSize;
    long position;
  } rows[] = {{16, 3}, {4, 100}, {0, 1}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.position);
    OutputMemStream out(r.initialSize, r.position, nullptr);
    EXPECT_EQ(static_cast<unsigned>(r.position), out.CurPos());
    out.WriteBytes("ab", 2);
    ASSERT_EQ(r.position + 2, static_cast<long>(out.CurPos()));
    std::string got(reinterpret_cast<const char*>(out.Data()), out.CurPos());
    EXPECT_EQ(std::string(r.position, '\0') + "ab", got);
  }
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
  EXPECT_EQ(4u, out.CurPos());
  EXPECT_EQ("abcd", std::string(reinterpret_cast<const char*>(out.Data()), 4));

  // Still fits the real block: no allocation.
  alloc.refuse_from = -1;
  out.WriteBytes("ef", 2);
  EXPECT_EQ(2u, alloc.requests.size());
  // Past the real block: growth starts from the raised target of 18.
  out.WriteBytes("ghi", 3);
  EXPECT_EQ((std::vector<size_t>{8, 18, 36}), alloc.requests);
  EXPECT_EQ("abcdefghi",
            std::string(reinterpret_cast<const char*>(out.Data()), 9));
}

}  // namespace
