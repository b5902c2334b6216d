// Feeds arbitrary bytes to the ELF note walker and the JSON member reader.
#include <cstddef>
#include <cstdint>

#include "common/os/internal/packagenote.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ACE_CString json, value;
  if (Kelvane::FindPackageNote(data, size, json) == 0) {
    Kelvane::PackageNoteField(json.c_str(), json.length(), "version", value);
  }
  Kelvane::PackageNoteField(reinterpret_cast<const char*>(data), size,
                            "version", value);
  return 0;
}
