#include "common/base/handle.h"

#include <unistd.h>

Handle::Handle(ACE_HANDLE h) : handle_(h) {}

Handle::~Handle() {
  if (handle_ != ACE_INVALID_HANDLE) ::close(handle_);
}

Handle::operator ACE_HANDLE&() { return handle_; }

Handle::operator ACE_HANDLE*() { return &handle_; }
