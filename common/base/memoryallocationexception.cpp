#include "common/base/memoryallocationexception.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <unistd.h>

#include "common/base/comlog.h"
#include "common/namedevent/namedevent.h"
#include "common/os/systeminfo.h"

namespace Kelvane {
namespace {

// Class-wide bookkeeping; deliberately without a lock.
uint32_t s_numberOfAllocationFailures = 0;
uint32_t s_maxAllocationFailures = 15;
uint32_t s_maxRetryOnMemExceptions = 3;
uint32_t s_requiredBufferLength = 0;

}  // namespace

MemoryAllocationException::MemoryAllocationException(const char* message,
                                                     const char* file, int line)
    : message_(message ? message : "") {
  SYSTEMINFOSTRUCT mem{};
  SystemInfo::SystemMemoryInfoEx(&mem);
  COM_LOG((LM_CRITICAL,
           "MemoryAllocationException: %s.\n(%s:%d)\nMemory Usage:\n"
           "%d percent of memory is in use.\n"
           "%Q KB total physical memory.\n%Q KB free physical memory.\n"
           "%Q KB total paging file.\n%Q KB free paging file.\n"
           "%Q KB total virtual memory.\n%Q KB free virtual memory.\n"
           "%Q KB extended memory.\n",
           message_.c_str(), file ? file : "", line,
           static_cast<int>(mem.memoryLoad), mem.totalPhysKB, mem.availPhysKB,
           mem.totalPageFileKB, mem.availPageFileKB, mem.totalVirtualKB,
           mem.availVirtualKB, mem.availExtendedVirtualKB));
  IncrementGlobalAllocationFailures();
}

MemoryAllocationException::MemoryAllocationException(
    const MemoryAllocationException& other)
    : std::exception(other), message_(other.message_) {}

MemoryAllocationException& MemoryAllocationException::operator=(
    const MemoryAllocationException& other) {
  std::exception::operator=(other);
  message_ = other.message_;
  return *this;
}

MemoryAllocationException::~MemoryAllocationException() {}

const char* MemoryAllocationException::what() const noexcept {
  return message_.c_str();
}

void MemoryAllocationException::IncrementGlobalAllocationFailures() {
  ++s_numberOfAllocationFailures;
  HandleAllocationFailureIncrement();
}

unsigned MemoryAllocationException::GetGlobalAllocationFailures() {
  return s_numberOfAllocationFailures;
}

unsigned MemoryAllocationException::GetMaxGlobalAllocationFailures() {
  return s_maxAllocationFailures;
}

void MemoryAllocationException::SetMaxGlobalAllocationFailures(unsigned count) {
  s_maxAllocationFailures = count;
}

unsigned MemoryAllocationException::GetMaxRetryOnAllocationFailures() {
  return s_maxRetryOnMemExceptions;
}

void MemoryAllocationException::SetMaxRetryOnAllocationFailures(
    unsigned count) {
  s_maxRetryOnMemExceptions = count;
}

void MemoryAllocationException::SetRequiredBufferLength(unsigned long bytes) {
  s_requiredBufferLength = static_cast<uint32_t>(bytes);
}

unsigned MemoryAllocationException::GetRequiredBufferLength() {
  return (s_requiredBufferLength >> 10) / 1000;
}

void MemoryAllocationException::HandleAllocationFailureIncrement() {
  if (s_numberOfAllocationFailures <= s_maxAllocationFailures) return;
  const int pid = static_cast<int>(::getpid());
  char name[64];
  std::snprintf(name, sizeof name, "Global\\KelvaneRestart_%d", pid);
  COM_LOG((LM_ALERT,
           "MemoryAllocationException::HandleAllocationFailureIncrement: "
           "Signaling restart event %s for this process with pid: %d.\n",
           name, pid));
  try {
    Common::NamedEvent restart(name);
    restart.signal();
  } catch (const std::exception&) {
    // Already logged by the event; the failure count still stands.
  }
}

}  // namespace Kelvane
