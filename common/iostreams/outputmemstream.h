// OutputMemStream: an OutputStream into one growing memory block.
//
// The block comes from an ACE_Allocator (ACE_Allocator::instance() unless
// one is given) on the first write, and grows to capacity + max(capacity,
// count) when a write does not fit: doubling for small writes, exactly
// enough room for a large one. The capacity starts at half the requested
// initial size, deliberately, so that a first write of at most that half
// allocates exactly the requested size:
//
//   OutputMemStream out(1024, 0, nullptr);
//   out.WriteBytes("x", 1);   // allocates 1024 bytes
//   ...                       // overflowing 1024 grows the block to 2048
//   // a first write of 5000 bytes instead would allocate 512 + 5000 = 5512
//
// Data() is the block (null before the first write), CurPos() the number of
// bytes in it. Sizes are 32-bit: growth past 4 GiB - 1 fails like an
// allocation failure.
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_OUTPUTMEMSTREAM_H_
#define COM_COMMON_IOSTREAMS_OUTPUTMEMSTREAM_H_

#include <cstdint>

#include <ace/Malloc_Base.h>

#include "common/base/comexport.h"
#include "common/iostreams/outputstream.h"

class COM_EXPORT OutputMemStream : public OutputStream {
 public:
  // Nothing is allocated yet. `initialPosition` is where the first byte
  // goes (callers pass 0); the bytes before it read as zeros.
  OutputMemStream(unsigned initialSize, long initialPosition,
                  ACE_Allocator* allocator);
  ~OutputMemStream() override;

  // Starts over as the constructor would, giving back any block held.
  void Init(unsigned initialSize, long initialPosition,
            ACE_Allocator* allocator);

  unsigned CurPos() const override;
  // Appends the bytes, growing the block when needed. A failed allocation
  // throws OutputBufferFull "Allocation Failed!" and leaves the block and
  // CurPos() as they were; the capacity target has already been raised, so
  // the next growth aims higher (writes still go only where memory was
  // really allocated).
  void WriteBytes(const void* data, unsigned count) override;
  // Nothing to do: the bytes are in memory already.
  void Flush() override;
  const unsigned char* Data() const override;
  // The next write lands at offset 0 again; the block is kept.
  void Reset();

 private:
  void Release();

  ACE_Allocator* allocator_;
  unsigned char* buffer_;
  uint32_t
      capacity_;  // growth target; equals allocated_ unless a growth failed
  uint32_t used_;
  uint32_t allocated_;  // the size of buffer_
};

#endif  // COM_COMMON_IOSTREAMS_OUTPUTMEMSTREAM_H_
