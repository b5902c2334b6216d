#include "common/iostreams/inputmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(InputMemStream, ReadsInPiecesUpToTheEnd) {
  struct Row {
    const char* name;
    std::string data;
    std::vector<unsigned> asks;
    std::vector<unsigned> got;
  } rows[] = {
      {"short then end", "abcd", {10, 10}, {4, 0}},
      {"exact pieces", "abcdef", {3, 3, 1}, {3, 3, 0}},
      {"zero count mid-stream", "abcdef", {2, 0, 9}, {2, 0, 4}},
      {"empty", "", {0, 5}, {0, 0}},
      {"embedded zero bytes", std::string("a\0b\0", 4), {3, 3}, {3, 1}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    InputMemStream in(r.data.data(), static_cast<unsigned>(r.data.size()));
    EXPECT_EQ(r.data.size(), in.Size());
    std::string seen;
    for (size_t i = 0; i < r.asks.size(); ++i) {
      std::vector<char> buf(r.asks[i] + 1, '#');
      unsigned n = in.ReadBytes(buf.data(), r.asks[i]);
      EXPECT_EQ(r.got[i], n) << "read " << i;
      EXPECT_EQ('#', buf[n]) << "wrote past the count it returned";
      seen.append(buf.data(), n);
      EXPECT_EQ(seen.size(), in.CurPos());
    }
    EXPECT_EQ(r.data.substr(0, seen.size()), seen);
  }
}

TEST(InputMemStream, TextConstructorStopsAtTheTerminator) {
  InputMemStream text("hello");
  EXPECT_EQ(5u, text.Size());
  char buf[16] = {};
  EXPECT_EQ(5u, text.ReadBytes(buf, sizeof buf));
  EXPECT_STREQ("hello", buf);

  InputMemStream none(static_cast<const char*>(nullptr));
  EXPECT_EQ(0u, none.Size());
  EXPECT_EQ(0u, none.ReadBytes(buf, sizeof buf));
  EXPECT_EQ(0u, none.CurPos());

  InputMemStream nullData(static_cast<const void*>(nullptr), 100);
  EXPECT_EQ(0u, nullData.Size());
  EXPECT_EQ(0u, nullData.ReadBytes(buf, sizeof buf));
}

}  // namespace
