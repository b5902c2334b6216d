#include "common/base/imageencoder.h"

#include <cstddef>
#include <cstring>

ImageEncoder::ImageEncoder() : base(nullptr), size(0), stride(0) {}

ImageEncoder::~ImageEncoder() {}

void ImageEncoder::Init(void* base, unsigned size, unsigned stride) {
  this->base = base;
  this->size = size;
  this->stride = stride;
}

void ImageEncoder::Encode(const void* samples, unsigned count) {
  if (count == 0) return;
  unsigned char* dst = static_cast<unsigned char*>(base);
  const unsigned char* src = static_cast<const unsigned char*>(samples);
  if (stride == 1) {
    std::memmove(dst, src, count);
    return;
  }
  for (size_t i = 0; i < count; ++i) dst[i * stride] = src[i];
}

void ImageEncoder::Decode(void* samples, unsigned count) {
  if (count == 0) return;
  const unsigned char* src = static_cast<const unsigned char*>(base);
  unsigned char* dst = static_cast<unsigned char*>(samples);
  if (stride == 1) {
    std::memmove(dst, src, count);
    return;
  }
  for (size_t i = 0; i < count; ++i) dst[i] = src[i * stride];
}
