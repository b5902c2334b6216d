#include "common/iostreams/inputmemstream.h"

#include <cstring>

InputMemStream::InputMemStream(const char* text)
    : data_(text),
      size_(text != nullptr ? static_cast<uint32_t>(std::strlen(text)) : 0),
      position_(0) {}

InputMemStream::InputMemStream(const void* data, unsigned size)
    : data_(static_cast<const char*>(data)),
      size_(data != nullptr ? size : 0),
      position_(0) {}

unsigned InputMemStream::CurPos() const { return position_; }

unsigned InputMemStream::ReadBytes(void* buffer, unsigned count) {
  if (count == 0 || position_ == size_) return 0;
  uint32_t k = size_ - position_;
  if (count < k) k = count;
  std::memcpy(buffer, data_ + position_, k);
  position_ += k;
  return k;
}

unsigned InputMemStream::Size() const { return size_; }
