#include "common/iostreams/outputmemstream.h"

#include <algorithm>
#include <cstring>

#include "common/iostreams/streamexceptions.h"

namespace {

constexpr char kAllocationFailed[] = "Allocation Failed!";

}  // namespace

OutputMemStream::OutputMemStream(unsigned initialSize, long initialPosition,
                                 ACE_Allocator* allocator)
    : allocator_(nullptr),
      buffer_(nullptr),
      capacity_(0),
      used_(0),
      allocated_(0) {
  Init(initialSize, initialPosition, allocator);
}

OutputMemStream::~OutputMemStream() { Release(); }

void OutputMemStream::Release() {
  if (buffer_ != nullptr) allocator_->free(buffer_);
  buffer_ = nullptr;
  allocated_ = 0;
}

void OutputMemStream::Init(unsigned initialSize, long initialPosition,
                           ACE_Allocator* allocator) {
  Release();
  allocator_ = allocator != nullptr ? allocator : ACE_Allocator::instance();
  capacity_ = static_cast<uint32_t>(initialSize) >> 1;
  used_ = static_cast<uint32_t>(initialPosition);
}

unsigned OutputMemStream::CurPos() const { return used_; }

void OutputMemStream::WriteBytes(const void* data, unsigned count) {
  if (count == 0) return;
  if (buffer_ == nullptr || static_cast<uint64_t>(used_) + count > allocated_) {
    // The target is raised before allocating, so a failure leaves it raised.
    // A start position beyond the first block is given room rather than
    // written out of bounds.
    uint64_t wanted =
        static_cast<uint64_t>(capacity_) + std::max<uint32_t>(capacity_, count);
    wanted = std::max<uint64_t>(wanted, static_cast<uint64_t>(used_) + count);
    if (wanted > UINT32_MAX) throw OutputBufferFull(nullptr, kAllocationFailed);
    capacity_ = static_cast<uint32_t>(wanted);
    unsigned char* grown =
        static_cast<unsigned char*>(allocator_->malloc(capacity_));
    if (grown == nullptr) throw OutputBufferFull(nullptr, kAllocationFailed);
    if (buffer_ != nullptr) {
      std::memcpy(grown, buffer_, used_);
      allocator_->free(buffer_);
    } else {
      std::memset(grown, 0, used_);
    }
    buffer_ = grown;
    allocated_ = capacity_;
  }
  std::memcpy(buffer_ + used_, data, count);
  used_ += count;
}

void OutputMemStream::Flush() {}

const unsigned char* OutputMemStream::Data() const { return buffer_; }

void OutputMemStream::Reset() { used_ = 0; }
