// OutputZMemStream: an OutputStream that deflates into one memory block.
//
// Block layout (what Data() exposes, CurPos() bytes long after a Flush()):
//   offset 0, 4 bytes: the number of bytes written so far, unsigned 32-bit
//                      little-endian (0 until the first Flush());
//   offset 4:          one zlib stream (RFC 1950; window bits 15, default
//                      memory level, the caller's level).
// Flush() makes the block complete and decodable at any moment, and writing
// can go on afterwards: the finish is done on a copy of the deflate state,
// so the live stream never ends and the next write overwrites the copy's
// trailer. Flushing twice without a write in between costs nothing. The
// block grows by doubling; it comes from an ACE_Allocator
// (ACE_Allocator::instance() unless one is given).
//
//   OutputZMemStream out(1 << 16, 0, nullptr, Z_DEFAULT_COMPRESSION);
//   out.WriteBytes(pixels, bytes);
//   out.Flush();
//   store(out.Data(), out.CurPos());   // a complete block
//   out.WriteBytes(more, n);           // goes on; Flush() again to store
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_OUTPUTZMEMSTREAM_H_
#define COM_COMMON_IOSTREAMS_OUTPUTZMEMSTREAM_H_

#include <cstdint>

#include <ace/Malloc_Base.h>
#include <zlib.h>

#include "common/base/comexport.h"
#include "common/iostreams/outputstream.h"

class COM_EXPORT OutputZMemStream : public OutputStream {
 public:
  // Not initialised: Init() must follow before writing.
  OutputZMemStream();
  // As Init().
  OutputZMemStream(unsigned initialSize, long headerSize,
                   ACE_Allocator* allocator, int level);
  // Close().
  ~OutputZMemStream() override;

  // Starts a new block of `initialSize` bytes (at least the header plus
  // one byte) at zlib `level` (-1 to 9), dropping whatever an earlier
  // Init() held. `headerSize` 0 reserves the 4-byte length word; a larger
  // value reserves that many zeroed bytes in front of the zlib stream (the
  // length word still being the first 4; values below 4 count as 4) and
  // counts from 0. Throws OutputBufferFull "Allocation Failed!" when the
  // block cannot be had, StreamError with zlib's message for a bad level.
  void Init(unsigned initialSize, long headerSize, ACE_Allocator* allocator,
            int level);

  // Deflates the bytes into the block, growing it as needed. Throws
  // StreamError "WriteBytes(). Stream not initialized" before Init() or
  // after Close(), StreamError with zlib's message (or "WriteBytes()") when
  // deflate fails, OutputBufferFull "Could not allocate new storage" when
  // the block cannot grow (the stream is unchanged then, apart from the
  // input deflate has already taken).
  void WriteBytes(const void* data, unsigned count) override;
  // Completes the block: the zlib stream of everything written so far, and
  // its length in the length word. Nothing when nothing was written since
  // the last Flush(). Throws OutputBufferFull "Could not allocate new
  // storage" when the block cannot grow.
  void Flush() override;
  // The valid length of the block after the last Flush(), length word
  // included; 0 before the first Flush() with data.
  unsigned CurPos() const override;
  // The block (null before Init() and after Close()).
  const unsigned char* Data() const override;

  // CurPos() when the length word is above 0, else 0.
  unsigned UsedSize() const;
  // CurPos() * 100 / bytes written, truncated, as of the last Flush(); 0
  // when nothing has been written.
  unsigned long GetCompressionRatio() const;
  // Flushes, ends the deflate state and gives the block back: the data is
  // gone afterwards. Nothing when not initialised.
  void Close();

 private:
  void Release();
  void ReallocStream(z_stream* other);

  ACE_Allocator* allocator_;
  bool flushed_;
  z_stream* zstream_;
  unsigned char* buffer_;
  uint32_t capacity_;
  uint32_t compressedSize_;
  uint32_t uncompressedSize_;
  uint32_t compressionRatio_;
};

#endif  // COM_COMMON_IOSTREAMS_OUTPUTZMEMSTREAM_H_
