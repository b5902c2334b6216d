#include "common/iostreams/inputzmemstream.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "iostreams/streamtestutil.h"
#include "iostreams/zlibtestutil.h"
#include "support/testbytes.h"

namespace {

using streamtest::Deflate;
using streamtest::ExpectThrows;
using streamtest::ImageLike;
using streamtest::LengthWordBytes;
using testsupport::RandomBytes;

struct ReadResult {
  std::string data;
  bool threw = false;
  std::string message;
  bool gone = false;  // after the end: no position, no size
};

// Reads until a read returns 0 or throws, in pieces of `piece` bytes, each
// piece read into a buffer of exactly that size (so an overrun is seen).
// The block is copied to a buffer of its exact size for the same reason.
ReadResult ReadAll(const std::string& block, unsigned piece) {
  std::vector<char> exact(block.begin(), block.end());
  InputZMemStream in(exact.data(), static_cast<unsigned>(exact.size()));
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
    return r;
  }
  try {
    in.Size();
  } catch (const StreamError&) {
    r.gone = in.CurPos() == 0;
  }
  return r;
}

TEST(InputZMemStream, ReadsBlocksMadeByZlib) {
  std::string image = ImageLike(200000, 3), noise = RandomBytes(30000, 4);
  struct Row {
    std::vector<std::string> parts;  // one zlib stream each
    int level;
    unsigned piece;
  } rows[] = {
      {{image}, 9, 777},
      {{image, noise, "", "tail"}, 0, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.parts.size() * 1000 + r.piece);
    std::string expected, body;
    for (const std::string& p : r.parts) {
      expected += p;
      body += Deflate(p, r.level);
    }
    std::string block =
        LengthWordBytes(static_cast<uint32_t>(expected.size())) + body;
    InputZMemStream sized(block.data(), static_cast<unsigned>(block.size()));
    EXPECT_EQ(expected.size(), sized.Size());
    ReadResult got = ReadAll(block, r.piece);
    EXPECT_FALSE(got.threw) << got.message;
    EXPECT_TRUE(got.gone) << "state kept after the end";
    EXPECT_TRUE(got.data == expected)
        << got.data.size() << " of " << expected.size();
  }
}

TEST(InputZMemStream, PositionCountsCompressedBytesAcrossStreams) {
  std::string a = Deflate(RandomBytes(5000, 1)),
              b = Deflate(RandomBytes(5000, 2));
  std::string block = LengthWordBytes(10000) + a + b;
  InputZMemStream in(block.data(), static_cast<unsigned>(block.size()));
  std::vector<char> buf(5000);
  ASSERT_EQ(5000u, in.ReadBytes(buf.data(), 5000));
  EXPECT_GT(in.CurPos(), 0u);
  EXPECT_LE(in.CurPos(), a.size());
  ASSERT_EQ(2500u, in.ReadBytes(buf.data(), 2500));
  EXPECT_GT(in.CurPos(), a.size()) << "the count restarted with stream two";
  EXPECT_LE(in.CurPos(), a.size() + b.size());
}

TEST(InputZMemStream, EmptyShortAndUninitialised) {
  char buf[8];
  InputZMemStream none;
  ExpectThrows("Stream not initialized!", [&] { none.ReadBytes(buf, 8); });
  ExpectThrows("Stream not initialized", [&] { none.Size(); });
  InputZMemStream empty("", 0);
  EXPECT_EQ(0u, empty.ReadBytes(buf, 8));

  const char bytes[] = {1, 0, 0};  // shorter than the length word
  InputZMemStream in;
  ExpectThrows("Init()", [&] { in.Init(bytes, 3); });
  ExpectThrows("Stream not initialized!", [&] { in.ReadBytes(buf, 8); });
  ExpectThrows("Init()", [&] { InputZMemStream bad(nullptr, 10); });
}

// Damaged blocks: the reader gives at most a prefix of the data and then
// throws, or ends cleanly; never more than was encoded.
TEST(InputZMemStream, DamagedBlocks) {
  const std::string data = ImageLike(40000, 8);
  const std::string stream = Deflate(data);
  const std::string good = LengthWordBytes(40000) + stream;
  const std::string kAny = "*", kNone = "";  // kNone: ends cleanly
  struct Row {
    std::string block;
    std::string message;
    size_t minData;  // bytes of data delivered before the end
  } rows[] = {
      {LengthWordBytes(7) + stream, kNone, data.size()},
      {good.substr(0, good.size() / 2), "ReadBytes_i()", 0},
      // zlib takes the header without output: the read ends cleanly, empty.
      {good.substr(0, 6), kNone, 0},
      {LengthWordBytes(40000) + "\x78\x9d" + stream.substr(2),
       "incorrect header check", 0},
      {good.substr(0, good.size() - 1) + static_cast<char>(good.back() ^ 0x40),
       "incorrect data check", 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.block.size());
    for (unsigned piece : {1u << 20, 4096u}) {
      ReadResult got = ReadAll(r.block, piece);
      EXPECT_EQ(data.substr(0, got.data.size()), got.data) << piece;
      EXPECT_EQ(r.message != kNone, got.threw) << piece;
      EXPECT_TRUE(r.message == kAny || r.message == got.message)
          << piece << ": " << got.message;
      EXPECT_GE(got.data.size(), r.minData) << piece;
    }
  }
  // Flipped bytes anywhere past the length word are noticed.
  for (size_t i = 4; i < good.size(); i += 197) {
    std::string flipped = good;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x5a);
    ReadResult got = ReadAll(flipped, 65536);
    EXPECT_EQ(data.substr(0, got.data.size()), got.data) << i;
    EXPECT_TRUE(got.threw) << "flip at " << i << " went unnoticed";
  }
}

}  // namespace
