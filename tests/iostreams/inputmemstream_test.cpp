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
      {"abcd", {10, 10}, {4, 0}},
      {"abcdef", {2, 0, 4, 1}, {2, 0, 4, 0}},
      {std::string("a\0b\0", 4), {3, 3}, {3, 1}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.data);
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
    EXPECT_EQ(r.data, seen);
  }
}

TEST(InputMemStream, TextConstructorStopsAtTheTerminator) {
  char buf[16] = {};
  InputMemStream text("hello");
  EXPECT_EQ(5u, text.Size());
  EXPECT_EQ(5u, text.ReadBytes(buf, sizeof buf));
  EXPECT_STREQ("hello", buf);
  InputMemStream none(static_cast<const char*>(nullptr));
  InputMemStream nullData(static_cast<const void*>(nullptr), 100);
  for (InputMemStream* in : {&none, &nullData}) {
    EXPECT_EQ(0u, in->Size());
    EXPECT_EQ(0u, in->ReadBytes(buf, sizeof buf));
  }
}

}  // namespace
