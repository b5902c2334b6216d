// The exceptions thrown by the byte streams of common/iostreams.
//
// Every stream failure is reported with one of these three classes, each
// derived directly from std::exception; the fixed message texts live as
// named constants in the units that throw them and are read with what().
// The messages are copied on construction, so an exception may outlive the
// text it was built from (zlib's messages, for instance).
//
//   try {
//     stream.WriteBytes(data, n);
//   } catch (const OutputBufferFull& e) {
//     ACE_DEBUG((LM_ERROR, "%s\n", e.what()));   // "Allocation Failed!"
//   } catch (const StreamError& e) { ... }
//
// Thread safety: plain values; copies may be used from any thread.
#ifndef COM_COMMON_IOSTREAMS_STREAMEXCEPTIONS_H_
#define COM_COMMON_IOSTREAMS_STREAMEXCEPTIONS_H_

#include <exception>
#include <string>

#include "common/base/comexport.h"

// A stream could not do what was asked: not opened, mapping or I/O failed,
// corrupt compressed data. A null `message` gives an empty text.
class COM_EXPORT StreamError : public std::exception {
 public:
  explicit StreamError(const char* message);
  const char* what() const noexcept override;

 private:
  std::string message_;
};

// A stream ended before its end marker. Its what() is "".
class COM_EXPORT NoEndOfStreamMarker : public std::exception {
 public:
  NoEndOfStreamMarker();
  const char* what() const noexcept override;
};

// An output stream could not get more memory. addr() names the block the
// failure concerns when the thrower knows one; this constructor does not
// record its `address` argument, so addr() is null for every exception
// built here (and for its copies). Callers must not rely on addr().
class COM_EXPORT OutputBufferFull : public std::exception {
 public:
  OutputBufferFull(void* address, const char* message);
  const char* what() const noexcept override;
  void* addr() const;

 private:
  std::string message_;
  void* address_;
};

#endif  // COM_COMMON_IOSTREAMS_STREAMEXCEPTIONS_H_
