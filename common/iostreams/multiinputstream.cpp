#include "common/iostreams/multiinputstream.h"

MultiInputStream::MultiInputStream() : position_(0), current_(0) {}

MultiInputStream::~MultiInputStream() {
  for (auto& member : members_) {
    if (member.second) delete member.first;
  }
}

void MultiInputStream::AddStream(InputStream& stream) {
  members_.emplace_back(&stream, false);
}

void MultiInputStream::AddStream(InputStream* stream, bool owned) {
  if (stream != nullptr) members_.emplace_back(stream, owned);
}

unsigned MultiInputStream::CurPos() const { return position_; }

unsigned MultiInputStream::ReadBytes(void* buffer, unsigned count) {
  if (count == 0 || current_ >= members_.size()) return 0;
  char* out = static_cast<char*>(buffer);
  unsigned total = 0;
  unsigned remaining = count;
  for (;;) {
    unsigned n = members_[current_].first->ReadBytes(out + total, remaining);
    if (n > remaining)
      n = remaining;  // keeps the counts sane if a member
                      // claims more than it was asked for
    if (n == 0) ++current_;
    total += n;
    position_ += n;
    remaining -= n;
    if (remaining == 0 || current_ >= members_.size()) break;
  }
  return total;
}

unsigned MultiInputStream::Size() const {
  uint32_t sum = 0;
  for (const auto& member : members_) sum += member.first->Size();
  return sum;
}
