// InputMemStream: an InputStream over bytes the caller keeps alive.
//
// The stream never copies or frees the memory; it only remembers how far
// reading has come. CurPos() is the number of bytes read, Size() the number
// of bytes given.
//
//   const char raw[] = {1, 2, 3, 4};
//   InputMemStream in(raw, 4);
//   char buf[10];
//   in.ReadBytes(buf, 10);   // 4
//   in.ReadBytes(buf, 10);   // 0: the end
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_INPUTMEMSTREAM_H_
#define COM_COMMON_IOSTREAMS_INPUTMEMSTREAM_H_

#include <cstdint>

#include "common/base/comexport.h"
#include "common/iostreams/inputstream.h"

class COM_EXPORT InputMemStream : public InputStream {
 public:
  // The bytes of a zero-terminated text, without the terminator; null
  // gives an empty stream.
  explicit InputMemStream(const char* text);
  // `size` bytes at `data`; null `data` gives an empty stream whatever
  // `size` says.
  InputMemStream(const void* data, unsigned size);

  unsigned CurPos() const override;
  // Copies min(count, bytes left) bytes; a short count only at the end of
  // the data, 0 at the end or for a `count` of 0.
  unsigned ReadBytes(void* buffer, unsigned count) override;
  unsigned Size() const override;

 private:
  const char* data_;
  uint32_t size_;
  uint32_t position_;
};

#endif  // COM_COMMON_IOSTREAMS_INPUTMEMSTREAM_H_
