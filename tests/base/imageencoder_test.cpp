#include "common/base/imageencoder.h"

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(ImageEncoder, ScatterAndGatherOneChannel) {
  struct Row {
    unsigned stride;
    unsigned offset;
    unsigned count;
  } rows[] = {{3, 2, 5}, {1, 0, 9}};
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.stride) + "/" + std::to_string(r.offset));
    std::vector<unsigned char> image(r.stride * r.count + 4, 0xEE);
    std::vector<unsigned char> samples(r.count);
    for (unsigned i = 0; i < r.count; ++i) samples[i] = 10 + i;
    ImageEncoder enc;
    enc.Init(image.data() + r.offset, static_cast<unsigned>(image.size()),
             r.stride);
    enc.Encode(samples.data(), r.count);
    for (size_t at = 0; at < image.size(); ++at) {
      bool mine = at >= r.offset && (at - r.offset) % r.stride == 0 &&
                  (at - r.offset) / r.stride < r.count;
      ASSERT_EQ(mine ? samples[(at - r.offset) / r.stride] : 0xEE, image[at])
          << at;
    }
    std::vector<unsigned char> back(r.count, 0);
    enc.Decode(back.data(), r.count);
    EXPECT_EQ(samples, back);
  }
}

TEST(ImageEncoder, EveryCallStartsAtBase) {
  unsigned char image[6] = {0, 0, 0, 0, 0, 0};
  const unsigned char a[] = {1, 2}, b[] = {7};
  ImageEncoder enc;
  enc.Init(image, sizeof image, 2);
  enc.Encode(a, 2);
  enc.Encode(b, 1);
  enc.Encode(nullptr, 0);  // count 0 touches nothing
  const unsigned char want[] = {7, 0, 2, 0, 0, 0};
  EXPECT_EQ(0, memcmp(want, image, 6));
  unsigned char got[2] = {0, 0};
  enc.Decode(got, 1);
  enc.Decode(got + 1, 1);
  EXPECT_EQ(0, memcmp(want, got, 1) + memcmp(want, got + 1, 1));
}

}  // namespace
