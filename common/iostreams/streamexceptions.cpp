#include "common/iostreams/streamexceptions.h"

StreamError::StreamError(const char* message)
    : message_(message != nullptr ? message : "") {}

const char* StreamError::what() const noexcept { return message_.c_str(); }

NoEndOfStreamMarker::NoEndOfStreamMarker() {}

const char* NoEndOfStreamMarker::what() const noexcept { return ""; }

OutputBufferFull::OutputBufferFull(void* /*address*/, const char* message)
    : message_(message != nullptr ? message : ""), address_(nullptr) {}

const char* OutputBufferFull::what() const noexcept { return message_.c_str(); }

void* OutputBufferFull::addr() const { return address_; }
