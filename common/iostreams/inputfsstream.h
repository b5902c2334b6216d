// InputFSStream: an InputStream over a whole file, mapped read-only.
//
// Open() maps the file privately and read-only (ACE_Mem_Map) and reads it
// through an InputMemStream over the mapping, so reading is a copy out of
// the page cache. The mapping is asked for sequential read-ahead. An empty
// file opens as an empty stream (mmap refuses a zero length, so nothing is
// mapped). The stream's sizes are 32-bit: a file of 4 GiB or more does not
// open ("Map Failed!"). The file may not change size while it is open;
// shrinking it makes reads past the new end fault, as with any mapping.
//
//   InputFSStream in;
//   in.Open("/data/blob.bin");          // throws StreamError("Map Failed!")
//   char buf[4096];
//   while (unsigned n = in.ReadBytes(buf, sizeof buf)) { ... }
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_INPUTFSSTREAM_H_
#define COM_COMMON_IOSTREAMS_INPUTFSSTREAM_H_

#include <ace/Mem_Map.h>
#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/iostreams/inputstream.h"

class InputMemStream;

class COM_EXPORT InputFSStream : public InputStream {
 public:
  // Not opened: ReadBytes and CurPos throw, Size() is 0.
  InputFSStream();
  ~InputFSStream() override;

  // Maps the file at `path`; a file opened before is released first. On
  // failure (missing, unreadable, a folder, 4 GiB or more) throws
  // StreamError "Map Failed!" and the stream is left unopened.
  void Open(const ACE_CString& path);

  // The bytes read so far. Throws StreamError "Stream not Initialized!"
  // before a successful Open().
  unsigned CurPos() const override;
  // As InputMemStream::ReadBytes over the file's bytes. Throws StreamError
  // "Stream not Initialized!" before a successful Open().
  unsigned ReadBytes(void* buffer, unsigned count) override;
  // The mapped length: the file's size, 0 before Open().
  unsigned Size() const override;

 private:
  void Release();

  InputMemStream* reader_;
  ACE_Mem_Map map_;
};

#endif  // COM_COMMON_IOSTREAMS_INPUTFSSTREAM_H_
