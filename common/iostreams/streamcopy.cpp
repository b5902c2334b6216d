#include "common/iostreams/streamcopy.h"

#include <memory>

namespace {

constexpr unsigned kScratchSize = 49152;

}  // namespace

void operator<<(OutputStream& out, InputStream& in) {
  std::unique_ptr<char[]> scratch(new char[kScratchSize]);
  for (;;) {
    unsigned n = in.ReadBytes(scratch.get(), kScratchSize);
    if (n == 0) break;
    out.WriteBytes(scratch.get(), n);
  }
}
