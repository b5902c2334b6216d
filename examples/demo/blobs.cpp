#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <zlib.h>

#include "common/iostreams/inputzmemstream.h"
#include "common/iostreams/outputzmemstream.h"
#include "common/iostreams/streamexceptions.h"

#include "demo.h"

namespace {

// A 256 x 256 slice of 16-bit samples: a bright disc on a dark field with
// a little noise, the way a CT slice looks.
std::vector<uint16_t> Slice(unsigned seed) {
  std::vector<uint16_t> pixels(256 * 256);
  uint32_t noise = seed;
  for (unsigned y = 0; y < 256; ++y) {
    for (unsigned x = 0; x < 256; ++x) {
      int dx = static_cast<int>(x) - 128, dy = static_cast<int>(y) - 128;
      noise = noise * 1664525u + 1013904223u;
      uint16_t base = dx * dx + dy * dy < 90 * 90 ? 1100 : 30;
      pixels[y * 256 + x] = static_cast<uint16_t>(base + (noise >> 28));
    }
  }
  return pixels;
}

void Blobs() {
  try {
    OutputZMemStream out(4096, 0, nullptr, Z_DEFAULT_COMPRESSION);
    unsigned written = 0;
    for (unsigned s = 0; s < 8; ++s) {
      std::vector<uint16_t> slice = Slice(s);
      unsigned bytes = static_cast<unsigned>(slice.size() * 2);
      out.WriteBytes(slice.data(), bytes);
      written += bytes;
      if (s == 3) {
        out.Flush();  // a complete block mid-way; writing goes on
        std::printf("after 4 slices:   %u bytes -> %u byte block\n", written,
                    out.CurPos());
      }
    }
    out.Flush();
    std::printf("after 8 slices:   %u bytes -> %u byte block (ratio %lu%%)\n",
                written, out.CurPos(), out.GetCompressionRatio());

    InputZMemStream in(out.Data(), out.CurPos());
    // Size() is the length word; it is not available once the input is
    // used up, so it is taken first.
    const unsigned total = in.Size();
    std::vector<uint16_t> back(total / 2);
    unsigned got = 0, n;
    while (got < total &&
           (n = in.ReadBytes(reinterpret_cast<char*>(back.data()) + got,
                             total - got)) > 0) {
      got += n;
    }
    bool same = got == written;
    for (unsigned s = 0; same && s < 8; ++s) {
      std::vector<uint16_t> slice = Slice(s);
      same = std::equal(slice.begin(), slice.end(), back.begin() + s * 65536);
    }
    std::printf("read back:        %u bytes, %s\n", got,
                same ? "identical" : "DIFFERENT");
  } catch (const std::exception& e) {
    std::printf("stream error: %s\n", e.what());
  }
}

}  // namespace

COM_DEMO_SECTION(50, "Compressed blobs", Blobs);
