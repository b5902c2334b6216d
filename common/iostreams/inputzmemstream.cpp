#include "common/iostreams/inputzmemstream.h"

#include <string>

#include "common/iostreams/streamexceptions.h"

namespace {

constexpr char kInitFailed[] = "Init()";
constexpr char kReadFailed[] = "ReadBytes_i()";
constexpr char kReadNotInitialized[] = "Stream not initialized!";
constexpr char kSizeNotInitialized[] = "Stream not initialized";
constexpr char kZlibVersion[] = "1.2.8";
constexpr unsigned kLengthWordSize = 4;

}  // namespace

InputZMemStream::InputZMemStream()
    : zstream_(nullptr),
      end_(nullptr),
      uncompressedSize_(0),
      initialised_(false) {}

InputZMemStream::InputZMemStream(const void* block, unsigned size)
    : InputZMemStream() {
  Init(block, size);
}

InputZMemStream::~InputZMemStream() { Release(); }

void InputZMemStream::Release() {
  if (zstream_ != nullptr) {
    inflateEnd(zstream_);
    delete zstream_;
    zstream_ = nullptr;
  }
}

void InputZMemStream::Init(const void* block, unsigned size) {
  Release();
  initialised_ = false;
  end_ = nullptr;
  uncompressedSize_ = 0;
  if (size == 0) {
    initialised_ = true;
    return;
  }
  if (block == nullptr || size < kLengthWordSize) {
    throw StreamError(kInitFailed);
  }
  const unsigned char* bytes = static_cast<const unsigned char*>(block);
  uncompressedSize_ = bytes[0] | (bytes[1] << 8) | (bytes[2] << 16) |
                      (static_cast<uint32_t>(bytes[3]) << 24);
  end_ = bytes + size;

  z_stream* z = new z_stream();
  z->next_in = const_cast<Bytef*>(bytes + kLengthWordSize);
  z->avail_in = size - kLengthWordSize;
  int rc = inflateInit_(z, kZlibVersion, static_cast<int>(sizeof *z));
  if (rc != Z_OK) {
    std::string message = z->msg != nullptr ? z->msg : kInitFailed;
    delete z;
    throw StreamError(message.c_str());
  }
  zstream_ = z;
  initialised_ = true;
}

unsigned InputZMemStream::ReadBytes(void* buffer, unsigned count) {
  if (!initialised_) throw StreamError(kReadNotInitialized);
  if (zstream_ == nullptr) return 0;

  zstream_->next_out = static_cast<Bytef*>(buffer);
  zstream_->avail_out = count;
  unsigned total = 0;
  while (zstream_->avail_out > 0) {
    uInt before = zstream_->avail_out;
    int rc = inflate(zstream_, Z_SYNC_FLUSH);
    total += before - zstream_->avail_out;
    if (rc == Z_OK) break;
    if (rc != Z_STREAM_END) {
      throw StreamError(zstream_->msg != nullptr ? zstream_->msg : kReadFailed);
    }
    if (zstream_->next_in >= end_) {
      Release();
      break;
    }
    // Another zlib stream follows: start it where this one ended, keeping
    // the count of bytes consumed.
    uLong consumed = zstream_->total_in;
    zstream_->avail_in = static_cast<uInt>(end_ - zstream_->next_in);
    inflateReset(zstream_);
    zstream_->total_in = consumed;
  }
  if (zstream_ != nullptr) {
    zstream_->next_out = nullptr;
    zstream_->avail_out = 0;
  }
  return total;
}

unsigned InputZMemStream::CurPos() const {
  return zstream_ != nullptr ? static_cast<unsigned>(zstream_->total_in) : 0;
}

unsigned InputZMemStream::Size() const {
  if (zstream_ == nullptr) throw StreamError(kSizeNotInitialized);
  return uncompressedSize_;
}
