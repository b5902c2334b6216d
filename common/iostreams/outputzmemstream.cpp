#include "common/iostreams/outputzmemstream.h"

#include <cmath>
#include <cstring>
#include <string>

#include "common/iostreams/streamexceptions.h"

namespace {

constexpr char kAllocationFailed[] = "Allocation Failed!";
constexpr char kGrowthFailed[] = "Could not allocate new storage";
constexpr char kWriteNotInitialized[] = "WriteBytes(). Stream not initialized";
constexpr char kWriteFailed[] = "WriteBytes()";
constexpr char kFlushFailed[] = "Flush()";
// The zlib version the stream structure is declared against; zlib only
// compares the major number.
constexpr char kZlibVersion[] = "1.2.8";
constexpr uint32_t kLengthWordSize = 4;

void StoreLittleEndian(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

}  // namespace

OutputZMemStream::OutputZMemStream()
    : allocator_(nullptr),
      flushed_(true),
      zstream_(nullptr),
      buffer_(nullptr),
      capacity_(0),
      compressedSize_(0),
      uncompressedSize_(0),
      compressionRatio_(0) {}

OutputZMemStream::OutputZMemStream(unsigned initialSize, long headerSize,
                                   ACE_Allocator* allocator, int level)
    : OutputZMemStream() {
  Init(initialSize, headerSize, allocator, level);
}

OutputZMemStream::~OutputZMemStream() {
  try {
    Close();
  } catch (...) {
    // Close() has let everything go before its exception; a destructor
    // cannot report the lost data.
  }
}

void OutputZMemStream::Release() {
  if (zstream_ != nullptr) {
    deflateEnd(zstream_);
    delete zstream_;
    zstream_ = nullptr;
  }
  if (buffer_ != nullptr) allocator_->free(buffer_);
  buffer_ = nullptr;
  capacity_ = 0;
  flushed_ = true;
}

void OutputZMemStream::Init(unsigned initialSize, long headerSize,
                            ACE_Allocator* allocator, int level) {
  Release();
  compressedSize_ = 0;
  uncompressedSize_ = 0;
  compressionRatio_ = 0;
  allocator_ = allocator != nullptr ? allocator : ACE_Allocator::instance();

  uint64_t reserved = kLengthWordSize;
  if (headerSize > static_cast<long>(kLengthWordSize)) {
    reserved = static_cast<uint64_t>(headerSize);
  }
  // Room for the header and at least one byte of zlib output, so that
  // doubling always makes progress.
  uint64_t size = initialSize;
  if (size <= reserved) size = reserved + 1;
  if (size > UINT32_MAX) throw OutputBufferFull(nullptr, kAllocationFailed);

  z_stream* z = new z_stream();
  buffer_ = static_cast<unsigned char*>(allocator_->malloc(size));
  if (buffer_ == nullptr) {
    delete z;
    throw OutputBufferFull(nullptr, kAllocationFailed);
  }
  capacity_ = static_cast<uint32_t>(size);
  std::memset(buffer_, 0, reserved);

  z->next_out = buffer_ + reserved;
  z->avail_out = static_cast<uInt>(capacity_ - reserved);
  int rc = deflateInit_(z, level, kZlibVersion, static_cast<int>(sizeof *z));
  if (rc != Z_OK) {
    const char* message = z->msg != nullptr ? z->msg : zError(rc);
    StreamError error(message);
    delete z;
    allocator_->free(buffer_);
    buffer_ = nullptr;
    capacity_ = 0;
    throw error;
  }
  // zlib's totals then count the header too, so the total after a finish
  // is the block's length.
  z->total_out = static_cast<uLong>(reserved);
  zstream_ = z;
  flushed_ = true;
}

void OutputZMemStream::WriteBytes(const void* data, unsigned count) {
  if (zstream_ == nullptr) throw StreamError(kWriteNotInitialized);
  if (count == 0) return;
  flushed_ = false;
  // Whatever happens, zlib must not keep a pointer to the caller's bytes: a
  // later Flush() copies the state and would read them.
  struct InputDetacher {
    z_stream* z;
    ~InputDetacher() {
      z->next_in = nullptr;
      z->avail_in = 0;
    }
  } detacher{zstream_};
  zstream_->next_in = static_cast<Bytef*>(const_cast<void*>(data));
  zstream_->avail_in = count;
  for (;;) {
    if (zstream_->avail_out == 0) ReallocStream(nullptr);
    uInt before = zstream_->avail_in;
    int rc = deflate(zstream_, Z_NO_FLUSH);
    uncompressedSize_ += before - zstream_->avail_in;
    if (rc != Z_OK) {
      throw StreamError(zstream_->msg != nullptr ? zstream_->msg
                                                 : kWriteFailed);
    }
    // Output space left over means deflate took all the input.
    if (zstream_->avail_out != 0) break;
    ReallocStream(nullptr);
  }
}

void OutputZMemStream::Flush() {
  if (flushed_ || zstream_ == nullptr) return;
  flushed_ = true;

  // The copy's output goes to the same block, at the live stream's
  // position; the live stream later overwrites what the copy adds.
  z_stream copy;
  int rc = deflateCopy(&copy, zstream_);
  if (rc != Z_OK) {
    flushed_ = false;
    throw StreamError(zstream_->msg != nullptr ? zstream_->msg : kFlushFailed);
  }
  try {
    // Z_OK means the block ran out of room. It may also be full already,
    // when a growth failed at the end of a write.
    for (;;) {
      if (copy.avail_out == 0) ReallocStream(&copy);
      rc = deflate(&copy, Z_FINISH);
      if (rc != Z_OK) break;
    }
  } catch (...) {
    deflateEnd(&copy);
    flushed_ = false;
    throw;
  }
  uint64_t total = copy.total_out;
  const char* message = copy.msg;
  if (rc != Z_STREAM_END) {
    std::string text = message != nullptr ? message : "";
    deflateEnd(&copy);
    flushed_ = false;
    if (rc == Z_BUF_ERROR) {
      throw OutputBufferFull(buffer_,
                             message != nullptr ? text.c_str() : kFlushFailed);
    }
    throw StreamError(message != nullptr ? text.c_str() : kFlushFailed);
  }
  deflateEnd(&copy);
  compressedSize_ = static_cast<uint32_t>(total);

  float ratio = static_cast<float>(compressedSize_) /
                static_cast<float>(uncompressedSize_) * 100.0f;
  compressionRatio_ = std::isfinite(ratio) && ratio < 4294967296.0f
                          ? static_cast<uint32_t>(ratio)
                          : 0;
  StoreLittleEndian(buffer_, uncompressedSize_);
}

unsigned OutputZMemStream::CurPos() const { return compressedSize_; }

const unsigned char* OutputZMemStream::Data() const { return buffer_; }

unsigned OutputZMemStream::UsedSize() const {
  if (buffer_ == nullptr) return 0;
  uint32_t word = buffer_[0] | (buffer_[1] << 8) | (buffer_[2] << 16) |
                  (static_cast<uint32_t>(buffer_[3]) << 24);
  return word > 0 ? CurPos() : 0;
}

unsigned long OutputZMemStream::GetCompressionRatio() const {
  return compressionRatio_;
}

void OutputZMemStream::Close() {
  if (zstream_ == nullptr) return;
  struct Releaser {
    OutputZMemStream* self;
    ~Releaser() { self->Release(); }
  } releaser{this};
  Flush();
}

void OutputZMemStream::ReallocStream(z_stream* other) {
  if (capacity_ > UINT32_MAX / 2)
    throw OutputBufferFull(nullptr, kGrowthFailed);
  uint32_t grown = capacity_ * 2;
  unsigned char* block = static_cast<unsigned char*>(allocator_->malloc(grown));
  if (block == nullptr) throw OutputBufferFull(nullptr, kGrowthFailed);
  std::memcpy(block, buffer_, capacity_);
  allocator_->free(buffer_);
  uint32_t gained = grown - capacity_;
  zstream_->next_out = block + (zstream_->next_out - buffer_);
  zstream_->avail_out += gained;
  if (other != nullptr) {
    other->next_out = block + (other->next_out - buffer_);
    other->avail_out += gained;
  }
  buffer_ = block;
  capacity_ = grown;
}
