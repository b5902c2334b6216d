#include "common/iostreams/outputfsstream.h"

#include <fcntl.h>

#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_unistd.h>

#include "common/base/comlog.h"
#include "common/iostreams/streamexceptions.h"

namespace {

constexpr char kUninitialized[] = "Uninitialized Stream";
constexpr char kOpenFailed[] = "ACE_OS::open failed!";
constexpr char kWriteFailed[] = "ACE_OS::write_n failed!";
constexpr char kFilesizeFailed[] = "ACE_OS::filesize failed!";

}  // namespace

OutputFSStream::OutputFSStream() : handle_(ACE_INVALID_HANDLE) {}

OutputFSStream::~OutputFSStream() { Close(); }

int OutputFSStream::Open(const ACE_CString& path, int flags) {
  Close();
  // O_APPEND makes every write go to the current end, which is what seeking
  // to the end once would give a single writer, and stays right when
  // several writers share the file.
  handle_ = ACE_OS::open(path.c_str(), flags | O_APPEND | O_CLOEXEC,
                         ACE_DEFAULT_FILE_PERMS);
  if (handle_ == ACE_INVALID_HANDLE) {
    COM_LOG((LM_INFO, "Failed to open %s. Error %m.\n", path.c_str()));
    throw StreamError(kOpenFailed);
  }
  ACE_OS::lseek(handle_, 0, SEEK_END);
  return 0;
}

unsigned OutputFSStream::CurPos() const {
  if (handle_ == ACE_INVALID_HANDLE) throw StreamError(kUninitialized);
  ACE_OFF_T size = ACE_OS::filesize(handle_);
  if (size < 0) throw StreamError(kFilesizeFailed);
  return static_cast<unsigned>(size);
}

void OutputFSStream::WriteBytes(const void* data, unsigned count) {
  if (handle_ == ACE_INVALID_HANDLE) throw StreamError(kUninitialized);
  if (count == 0) return;
  ssize_t written = ACE_OS::write_n(handle_, data, count);
  if (written < 0 || static_cast<size_t>(written) != count) {
    throw StreamError(kWriteFailed);
  }
}

void OutputFSStream::Flush() {
  if (handle_ != ACE_INVALID_HANDLE) ACE_OS::fsync(handle_);
}

const unsigned char* OutputFSStream::Data() const { return nullptr; }

int OutputFSStream::Close() {
  if (handle_ == ACE_INVALID_HANDLE) return -1;
  Flush();
  int rc = ACE_OS::close(handle_);
  handle_ = ACE_INVALID_HANDLE;
  return rc == 0 ? 0 : -1;
}
