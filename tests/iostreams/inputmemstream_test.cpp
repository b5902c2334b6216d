#include "common/iostreams/inputmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(InputMemStream, ReadsInPiecesUpToTheEnd) {
  struct Row {
    std::string data;
    std::vector<unsigned> asks;
    std::vector<unsigned> got;
  } rows[] = {
      {"abcdef", {2, 0, 4, 1}, {2, 0, 4, 0}},
      {std::string("a\0b\0", 4), {3, 3}, {3, 1}},
      {"", {5}, {0}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.data);
    // Null data reads as empty, whatever size it is given.
    InputMemStream in(
        r.data.empty() ? nullptr : r.data.data(),
        r.data.empty() ? 100 : static_cast<unsigned>(r.data.size()));
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
    EXPECT_EQ(r.data, seen);
  }
}

TEST(InputMemStream, TextConstructorStopsAtTheTerminator) {
  char buf[16] = {};
  InputMemStream text("hello"), none(static_cast<const char*>(nullptr));
  EXPECT_EQ(5u, text.ReadBytes(buf, sizeof buf));
  EXPECT_EQ("hello5", std::string(buf) + std::to_string(text.Size()));
  EXPECT_EQ(0u, none.Size() + none.ReadBytes(buf, sizeof buf));
}

}  // namespace
