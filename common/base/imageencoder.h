// Scatter and gather of one channel of an interleaved image buffer.
//
// A sample is one byte: Encode writes samples[i] (an unsigned char) to the
// byte at base + i * stride, Decode reads it back. For 16-bit samples, call
// twice with the buffer offset by one byte and the bytes of the samples
// split accordingly; the copier itself never assumes a wider sample.
// Every call starts at `base`; no position is kept, and `size` is stored
// only: the caller makes sure base + (count - 1) * stride is in the buffer.
//
// Thread safety: one encoder per thread, or Init before sharing it.
//
//   ImageEncoder enc;
//   enc.Init(rgb, width * 3, 3);
//   enc.Encode(green, width);   // after Init(rgb + 1, ...): green channel
#ifndef COM_COMMON_BASE_IMAGEENCODER_H_
#define COM_COMMON_BASE_IMAGEENCODER_H_

#include "common/base/comexport.h"

class COM_EXPORT ImageEncoder {
 public:
  ImageEncoder();
  ~ImageEncoder();

  // Stores the three values; the buffer is not owned.
  void Init(void* base, unsigned size, unsigned stride);
  // Scatter: base[i * stride] = samples[i] for i < count.
  void Encode(const void* samples, unsigned count);
  // Gather: samples[i] = base[i * stride] for i < count.
  void Decode(void* samples, unsigned count);

 private:
  void* base;
  unsigned size;
  unsigned stride;
};

#endif  // COM_COMMON_BASE_IMAGEENCODER_H_
