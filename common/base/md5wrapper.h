// MD5 digests of files and memory blocks as 32 lower-case hexadecimal
// digits, in std::string.
//
// Thread safety: the wrapper's engine keeps no state between calls, so one
// md5wrapper may be used from several threads at once.
//
//   Kelvane::md5wrapper md5;
//   std::string sum = md5.getHashFromFile("/data/study/img.dcm");
//   if (sum == "-1") { /* the file could not be opened */ }
#ifndef COM_COMMON_BASE_MD5WRAPPER_H_
#define COM_COMMON_BASE_MD5WRAPPER_H_

#include <string>

#include "common/base/comexport.h"

namespace Kelvane {
namespace internal {
class Md5Engine;
}

class COM_EXPORT md5wrapper {
 public:
  md5wrapper();
  ~md5wrapper();
  md5wrapper(const md5wrapper&) = delete;
  md5wrapper& operator=(const md5wrapper&) = delete;

  // Reads the file opened for binary reading ("rb") to its end and returns
  // its digest. Returns "-1" when the file cannot be opened for reading,
  // and also for a folder (which opens on Linux but cannot be read). A read
  // error part-way ends the input there, as the end of the file would.
  std::string getHashFromFile(const std::string& path);

  // The digest of `length` bytes at `data`; a null `data` counts as no
  // bytes (d41d8cd98f00b204e9800998ecf8427e).
  std::string getHashFromBuffer(unsigned char* data, unsigned length);

  // The 16 bytes at `digest` as 32 lower-case digits ("%02x" each).
  std::string convToString(unsigned char* digest);

 private:
  std::string hashit(unsigned char* data, unsigned length);

  internal::Md5Engine* md5_;
};

}  // namespace Kelvane

#endif  // COM_COMMON_BASE_MD5WRAPPER_H_
