#include "common/iostreams/inputfsstream.h"

#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>

#include <ace/OS_NS_unistd.h>

#include "common/iostreams/inputmemstream.h"
#include "common/iostreams/streamexceptions.h"

namespace {

constexpr char kMapFailed[] = "Map Failed!";
constexpr char kNotInitialized[] = "Stream not Initialized!";

}  // namespace

InputFSStream::InputFSStream() : reader_(nullptr) {}

InputFSStream::~InputFSStream() { Release(); }

void InputFSStream::Release() {
  delete reader_;
  reader_ = nullptr;
  map_.close();
}

void InputFSStream::Open(const ACE_CString& path) {
  Release();
  // Open first and look at the size: a zero-length mapping is refused by
  // mmap, and a file past 32 bits cannot be described by this stream.
  if (map_.open(path.c_str(), O_RDONLY | O_CLOEXEC) == -1) {
    throw StreamError(kMapFailed);
  }
  ACE_OFF_T length = ACE_OS::filesize(map_.handle());
  if (length < 0 || static_cast<ACE_UINT64>(length) > UINT32_MAX) {
    map_.close();
    throw StreamError(kMapFailed);
  }
  if (length == 0) {
    reader_ = new InputMemStream(static_cast<const void*>(nullptr), 0);
    return;
  }
  if (map_.map(static_cast<size_t>(-1), PROT_READ, ACE_MAP_PRIVATE) == -1) {
    map_.close();
    throw StreamError(kMapFailed);
  }
  map_.advise(MADV_SEQUENTIAL);
  reader_ = new InputMemStream(map_.addr(), static_cast<unsigned>(map_.size()));
}

unsigned InputFSStream::CurPos() const {
  if (reader_ == nullptr) throw StreamError(kNotInitialized);
  return reader_->CurPos();
}

unsigned InputFSStream::ReadBytes(void* buffer, unsigned count) {
  if (reader_ == nullptr) throw StreamError(kNotInitialized);
  return reader_->ReadBytes(buffer, count);
}

unsigned InputFSStream::Size() const {
  // The reader spans exactly the mapped length; ACE_Mem_Map keeps its last
  // length after close(), so it is not asked directly.
  return reader_ != nullptr ? reader_->Size() : 0;
}
