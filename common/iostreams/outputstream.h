// OutputStream: the byte sink of common/iostreams.
//
// WriteBytes takes bytes, Flush pushes what is held to where it goes, and
// Data() exposes the written bytes for streams that keep them in memory
// (null for the others). Streams are not copyable and are used by one
// thread at a time.
//
//   OutputMemStream out(1024, 0, nullptr);
//   out.WriteBytes("abc", 3);   // out.CurPos() == 3, out.Data() holds "abc"
#ifndef COM_COMMON_IOSTREAMS_OUTPUTSTREAM_H_
#define COM_COMMON_IOSTREAMS_OUTPUTSTREAM_H_

#include "common/base/comexport.h"

class COM_EXPORT OutputStream {
 public:
  OutputStream() = default;
  OutputStream(const OutputStream&) = delete;
  OutputStream& operator=(const OutputStream&) = delete;
  virtual ~OutputStream();

  // The write position (for most streams, the bytes written so far).
  virtual unsigned CurPos() const = 0;
  // Takes all `count` bytes at `data` or throws.
  virtual void WriteBytes(const void* data, unsigned count) = 0;
  virtual void Flush() = 0;
  // The stream's bytes when it keeps them in memory, else null.
  virtual const unsigned char* Data() const = 0;
};

#endif  // COM_COMMON_IOSTREAMS_OUTPUTSTREAM_H_
