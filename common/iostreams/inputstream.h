// InputStream: the byte source of common/iostreams.
//
// A stream yields its bytes in order through ReadBytes; CurPos() tells how
// far reading has come and Size() how many bytes the stream holds, each in
// the implementation's own terms (see the implementations). Streams are not
// copyable and are used by one thread at a time.
//
//   InputMemStream in("abc");
//   char buf[8];
//   unsigned n = in.ReadBytes(buf, sizeof buf);   // 3; the next call gives 0
#ifndef COM_COMMON_IOSTREAMS_INPUTSTREAM_H_
#define COM_COMMON_IOSTREAMS_INPUTSTREAM_H_

#include "common/base/comexport.h"

class COM_EXPORT InputStream {
 public:
  InputStream() = default;
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;
  virtual ~InputStream();

  // The read position.
  virtual unsigned CurPos() const = 0;
  // Copies up to `count` bytes into `buffer` and returns how many were
  // copied; 0 means the end of the stream (or a `count` of 0).
  virtual unsigned ReadBytes(void* buffer, unsigned count) = 0;
  // The number of bytes the stream holds.
  virtual unsigned Size() const = 0;
};

#endif  // COM_COMMON_IOSTREAMS_INPUTSTREAM_H_
