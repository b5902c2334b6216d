// Handle: owns an operating-system handle and closes it when destroyed.
//
// On Linux the handle is an ACE_HANDLE (a file descriptor) and closing is
// close(2). Only ACE_INVALID_HANDLE (-1, all bits set) is left alone; every
// other value is closed, including 0. That mirrors the Windows holder,
// which passes a null handle to CloseHandle as well, and it is kept on
// purpose: on Linux a Handle holding 0 closes descriptor 0 (standard input)
// when it goes away, so a caller that means "no handle" must store
// ACE_INVALID_HANDLE, never 0.
//
// A Handle is not copyable: two holders of one descriptor would close it
// twice.
//
// Thread safety: none of its own; one Handle belongs to one thread at a
// time.
//
// Example:
//   Handle h(ACE_INVALID_HANDLE);
//   *static_cast<ACE_HANDLE*>(h) = ACE_OS::open(path, O_RDONLY);
//   if (h != ACE_INVALID_HANDLE) ACE_OS::read(h, buf, n);
//   // closed here
#ifndef COM_COMMON_BASE_HANDLE_H_
#define COM_COMMON_BASE_HANDLE_H_

#include <ace/config-all.h>  // ACE_HANDLE, ACE_INVALID_HANDLE

#include "common/base/comexport.h"

class COM_EXPORT Handle {
 public:
  explicit Handle(ACE_HANDLE h);
  // Closes the stored value unless it is ACE_INVALID_HANDLE; a failing
  // close is ignored.
  ~Handle();

  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // The stored value by reference: read it, or overwrite it without closing
  // what it held before.
  operator ACE_HANDLE&();
  // The address of the stored value, for calls that create a handle into an
  // out-parameter.
  operator ACE_HANDLE*();

 private:
  ACE_HANDLE handle_;
};

#endif  // COM_COMMON_BASE_HANDLE_H_
