// Compressed blocks from arbitrary bytes: the reader must throw StreamError
// or end its read, never read outside the block; and the input itself,
// written through OutputZMemStream with a flush in the middle, must read
// back unchanged after each flush.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/iostreams/inputzmemstream.h"
#include "common/iostreams/outputzmemstream.h"
#include "common/iostreams/streamexceptions.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

// Inflates everything, in pieces of `piece` bytes, up to `limit` bytes.
std::vector<uint8_t> ReadAll(const uint8_t* block, size_t size, unsigned piece,
                             size_t limit, bool* threw) {
  std::vector<uint8_t> out;
  *threw = false;
  try {
    InputZMemStream in(block, static_cast<unsigned>(size));
    std::vector<uint8_t> buf(piece);
    while (out.size() < limit) {
      unsigned n = in.ReadBytes(buf.data(), piece);
      Check(n <= piece);
      if (n == 0) break;
      out.insert(out.end(), buf.begin(), buf.begin() + n);
    }
    if (size >= 4) {
      try {
        in.Size();
      } catch (const StreamError&) {
      }
    }
  } catch (const StreamError&) {
    *threw = true;
  }
  return out;
}

void RoundTrip(const uint8_t* data, size_t size, size_t split, int level) {
  OutputZMemStream out(static_cast<unsigned>(size % 200), 0, nullptr, level);
  size_t parts[] = {split, size};
  size_t done = 0;
  for (size_t upto : parts) {
    out.WriteBytes(data + done, static_cast<unsigned>(upto - done));
    done = upto;
    out.Flush();
    if (done == 0) continue;
    bool threw;
    std::vector<uint8_t> back =
        ReadAll(out.Data(), out.CurPos(), 4096, done + 1, &threw);
    Check(!threw);
    Check(back.size() == done && std::memcmp(back.data(), data, done) == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader gets a block of exactly the input's size.
  const unsigned pieces[] = {1, 7, 4096, 65536};
  bool threw;
  unsigned piece = pieces[size % 4];
  if (piece == 1 && size > 4096) piece = 4096;  // keep runs quick
  ReadAll(size > 0 ? data : nullptr, size, piece, size_t{16} << 20, &threw);

  if (size > 0) {
    int level = static_cast<int>(data[0] % 11) - 1;
    RoundTrip(data, size, size / 2, level);
  }
  return 0;
}
