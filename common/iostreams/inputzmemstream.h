// InputZMemStream: an InputStream that inflates a compressed block.
//
// The block is the one OutputZMemStream makes: a 4-byte little-endian
// length word, then a zlib stream. Several complete zlib streams placed one
// after another behind the length word read as their concatenation. The
// block is not copied: the caller keeps it alive while reading.
//
// Damaged input never reads outside the block: a bad or truncated stream
// throws StreamError (zlib's message, or "ReadBytes_i()") or, for a stream
// cut short, ends with a short read followed by a StreamError. The length
// word is only reported by Size(), never trusted for reading.
//
//   InputZMemStream in(block, blockSize);
//   std::vector<char> pixels(in.Size());
//   unsigned n = in.ReadBytes(pixels.data(), pixels.size());
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_INPUTZMEMSTREAM_H_
#define COM_COMMON_IOSTREAMS_INPUTZMEMSTREAM_H_

#include <cstdint>

#include <zlib.h>

#include "common/base/comexport.h"
#include "common/iostreams/inputstream.h"

class COM_EXPORT InputZMemStream : public InputStream {
 public:
  // Not initialised: ReadBytes throws until Init().
  InputZMemStream();
  // As Init().
  InputZMemStream(const void* block, unsigned size);
  ~InputZMemStream() override;

  // Starts reading the `size` bytes at `block`, dropping any earlier block.
  // A `size` of 0 gives an initialised stream that reads nothing (and whose
  // Size() throws). Throws StreamError "Init()" for a block of 1 to 3
  // bytes (no room for the length word) or a null block, or with zlib's
  // message when the inflate state cannot be made; the stream is not
  // initialised then.
  void Init(const void* block, unsigned size);

  // Inflates up to `count` bytes into `buffer`. Returns as soon as zlib
  // has made what it can of the input in hand, so a short count is not
  // the end; 0 is. Throws StreamError "Stream not initialized!" before
  // Init(), and zlib's message or "ReadBytes_i()" for corrupt or truncated
  // data.
  unsigned ReadBytes(void* buffer, unsigned count) override;
  // Compressed bytes consumed so far, behind the length word; 0 once the
  // input is exhausted.
  unsigned CurPos() const override;
  // The length word. Throws StreamError "Stream not initialized" when there
  // is no inflate state: a block of size 0, or once the input is exhausted.
  unsigned Size() const override;

 private:
  void Release();

  z_stream* zstream_;
  const unsigned char* end_;
  uint32_t uncompressedSize_;
  bool initialised_;
};

#endif  // COM_COMMON_IOSTREAMS_INPUTZMEMSTREAM_H_
