#include "common/iostreams/inputzmemstream.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/streamexceptions.h"

#include "iostreams/zlibtestutil.h"

namespace {

using streamtest::Deflate;
using streamtest::ImageLike;
using streamtest::LengthWordBytes;
using streamtest::RandomBytes;

struct ReadResult {
  std::string data;
  bool threw = false;
  std::string message;
};

// Reads until a read returns 0 or throws, in pieces of `piece` bytes, each
// piece read into a buffer of exactly that size (so an overrun is seen).
ReadResult ReadAll(InputZMemStream& in, unsigned piece) {
  ReadResult r;
  try {
    for (;;) {
      std::vector<char> buf(piece);
      unsigned n = in.ReadBytes(buf.data(), piece);
      EXPECT_LE(n, piece);
      if (n == 0) break;
      r.data.append(buf.data(), n);
    }
  } catch (const StreamError& e) {
    r.threw = true;
    r.message = e.what();
  }
  return r;
}

TEST(InputZMemStream, ReadsBlocksMadeByZlib) {
  std::string image = ImageLike(200000, 3), noise = RandomBytes(30000, 4);
  struct Row {
    const char* name;
    std::vector<std::string> parts;  // one zlib stream each
    int level;
    int windowBits;
    unsigned piece;
  } rows[] = {
      {"one stream, big reads", {image}, 6, 15, 1 << 20},
      {"one stream, odd reads", {image}, 9, 15, 777},
      {"small window", {image}, 6, 9, 4096},
      {"stored", {noise}, 0, 15, 1000},
      {"three streams back to back", {image, noise, "tail"}, 1, 15, 65536},
      {"byte at a time", {"abc", "", "de"}, 6, 15, 1},
      {"empty stream", {""}, 6, 15, 10},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    std::string expected, body;
    for (const std::string& p : r.parts) {
      expected += p;
      body += Deflate(p, r.level, r.windowBits);
    }
    std::string block =
        LengthWordBytes(static_cast<uint32_t>(expected.size())) + body;
    InputZMemStream in(block.data(), static_cast<unsigned>(block.size()));
    EXPECT_EQ(expected.size(), in.Size());
    EXPECT_EQ(0u, in.CurPos());
    ReadResult got = ReadAll(in, r.piece);
    EXPECT_FALSE(got.threw) << got.message;
    EXPECT_TRUE(got.data == expected)
        << got.data.size() << " of " << expected.size();
    // Exhausted: the state is gone.
    EXPECT_EQ(0u, in.CurPos());
    char c;
    EXPECT_EQ(0u, in.ReadBytes(&c, 1));
    EXPECT_THROW(in.Size(), StreamError);
  }
}

TEST(InputZMemStream, PositionCountsCompressedBytesAcrossStreams) {
  std::string a = Deflate(RandomBytes(5000, 1), 6);
  std::string b = Deflate(RandomBytes(5000, 2), 6);
  std::string block = LengthWordBytes(10000) + a + b;
  InputZMemStream in(block.data(), static_cast<unsigned>(block.size()));
  std::vector<char> buf(5000);
  ASSERT_EQ(5000u, in.ReadBytes(buf.data(), 5000));
  unsigned first = in.CurPos();
  EXPECT_GT(first, 0u);
  EXPECT_LE(first, a.size());
  ASSERT_EQ(2500u, in.ReadBytes(buf.data(), 2500));
  EXPECT_GT(in.CurPos(), a.size()) << "the count restarted with stream two";
  EXPECT_LE(in.CurPos(), a.size() + b.size());
}

void ExpectThrows(const char* text, const std::function<void()>& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception, wanted " << text;
  } catch (const StreamError& e) {
    EXPECT_STREQ(text, e.what());
  }
}

TEST(InputZMemStream, EmptyShortAndUninitialised) {
  char buf[8];
  InputZMemStream none;
  ExpectThrows("Stream not initialized!", [&] { none.ReadBytes(buf, 8); });
  ExpectThrows("Stream not initialized", [&] { none.Size(); });
  EXPECT_EQ(0u, none.CurPos());

  InputZMemStream empty("", 0);
  EXPECT_EQ(0u, empty.ReadBytes(buf, 8));
  ExpectThrows("Stream not initialized", [&] { empty.Size(); });

  const char bytes[] = {1, 0, 0};
  for (unsigned size = 1; size <= 3; ++size) {
    SCOPED_TRACE(size);
    std::vector<char> exact(bytes, bytes + size);
    InputZMemStream in;
    ExpectThrows("Init()", [&] { in.Init(exact.data(), size); });
    ExpectThrows("Stream not initialized!", [&] { in.ReadBytes(buf, 8); });
  }
  ExpectThrows("Init()", [&] { InputZMemStream in(nullptr, 10); });

  // A length word with nothing behind it: no stream at all.
  std::string word = LengthWordBytes(5);
  InputZMemStream bare(word.data(), 4);
  EXPECT_EQ(5u, bare.Size());
  ReadResult r = ReadAll(bare, 8);
  EXPECT_TRUE(r.threw);
  EXPECT_EQ("", r.data);
}

// Damaged blocks: the reader gives at most a prefix of the data and then
// throws, or ends cleanly; never more than was encoded.
TEST(InputZMemStream, DamagedBlocks) {
  const std::string data = ImageLike(40000, 8);
  const std::string stream = Deflate(data, 6);
  const std::string good = LengthWordBytes(40000) + stream;
  struct Row {
    const char* name;
    std::string block;
    bool mustThrow;
    const char* message;  // null: any
    bool allData;         // every byte of data delivered first
  } rows[] = {
      {"wrong length word", LengthWordBytes(7) + stream, false, nullptr, true},
      {"truncated in the data", good.substr(0, good.size() / 2), true,
       "ReadBytes_i()", false},
      {"truncated in the trailer", good.substr(0, good.size() - 2), true,
       "ReadBytes_i()", false},
      // zlib takes the header without output: the read ends cleanly, empty.
      {"header only", good.substr(0, 6), false, nullptr, false},
      {"bad header", LengthWordBytes(40000) + "\x78\x9d" + stream.substr(2),
       true, "incorrect header check", false},
      {"bad checksum",
       good.substr(0, good.size() - 1) + static_cast<char>(good.back() ^ 0x40),
       true, "incorrect data check", false},
      {"garbage after the stream", good + "garbage!", true, nullptr, false},
      {"one stray byte after", good + "x", true, nullptr, false},
      {"preset dictionary asked",
       LengthWordBytes(3) + "\x78\xbb" + std::string(8, '\x01'), true, nullptr,
       false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    for (unsigned piece : {1u << 20, 4096u}) {
      std::vector<char> exact(r.block.begin(), r.block.end());
      InputZMemStream in(exact.data(), static_cast<unsigned>(exact.size()));
      ReadResult got = ReadAll(in, piece);
      EXPECT_EQ(data.substr(0, got.data.size()), got.data) << piece;
      if (r.mustThrow) {
        EXPECT_TRUE(got.threw) << piece;
      }
      if (r.message != nullptr) {
        EXPECT_EQ(r.message, got.message) << piece;
      }
      if (r.allData) {
        EXPECT_EQ(data.size(), got.data.size()) << piece;
      }
    }
  }

  // Every single flipped byte: a prefix at most, never a crash.
  for (size_t i = 0; i < good.size(); i += 97) {
    std::vector<char> flipped(good.begin(), good.end());
    flipped[i] = static_cast<char>(flipped[i] ^ 0x5a);
    InputZMemStream in(flipped.data(), static_cast<unsigned>(flipped.size()));
    ReadResult got = ReadAll(in, 65536);
    if (i >= 4) {
      EXPECT_TRUE(got.threw) << "flip at " << i << " went unnoticed";
    }
  }
}

}  // namespace
