// OutputFSStream: an OutputStream that appends to a file.
//
// Open() opens the file with the caller's open(2) flags plus O_APPEND (and
// O_CLOEXEC), so every write lands at the end of the file, even when other
// streams or processes append to the same file in between. New files get
// mode 0644 before the umask. CurPos() is the file's size, which for an
// append-only stream is also where the next write goes. Flush() is fsync(2)
// and Close() flushes first, so a closed stream's data is on the disk.
//
//   OutputFSStream out;
//   out.Open("/var/log/kelvane/audit.bin", O_WRONLY | O_CREAT);
//   out.WriteBytes(record, length);
//   out.Close();
//
// Thread safety: one thread at a time.
#ifndef COM_COMMON_IOSTREAMS_OUTPUTFSSTREAM_H_
#define COM_COMMON_IOSTREAMS_OUTPUTFSSTREAM_H_

#include <ace/SString.h>
#include <ace/os_include/os_fcntl.h>

#include "common/base/comexport.h"
#include "common/iostreams/outputstream.h"

class COM_EXPORT OutputFSStream : public OutputStream {
 public:
  // Closed.
  OutputFSStream();
  // Close(); a failure there is not reported.
  ~OutputFSStream() override;

  // Opens `path` for appending and returns 0; a file open before is closed
  // first. On failure logs "Failed to open <path>. Error <reason>." at
  // LM_INFO and throws StreamError "ACE_OS::open failed!".
  int Open(const ACE_CString& path, int flags);

  // The file's size. Throws StreamError "Uninitialized Stream" when closed,
  // "ACE_OS::filesize failed!" when the size cannot be read.
  unsigned CurPos() const override;
  // Appends all bytes (nothing for a `count` of 0). Throws StreamError
  // "Uninitialized Stream" when closed, "ACE_OS::write_n failed!" when the
  // system does not take every byte.
  void WriteBytes(const void* data, unsigned count) override;
  // fsync(2); nothing when closed.
  void Flush() override;
  // Always null: the bytes are in the file.
  const unsigned char* Data() const override;
  // Flushes and closes: 0 on success, -1 when already closed (no throw) or
  // when close(2) fails; the stream is closed afterwards either way.
  int Close();

 private:
  ACE_HANDLE handle_;
};

#endif  // COM_COMMON_IOSTREAMS_OUTPUTFSSTREAM_H_
