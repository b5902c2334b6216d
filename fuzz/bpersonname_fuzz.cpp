// Person names from arbitrary bytes: both parsers, the rebuild, and the
// relations that must hold whatever the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/base/bpersonname.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ACE_CString text(reinterpret_cast<const char*>(data), size);

  BPersonName pn;
  Check(pn.FromDICOMName(text));
  Check(pn.GetDICOMName() == text);
  // The display forms start with the family name.
  const ACE_CString& family = pn.GetFamilyName();
  Check(pn.GetDisplayName().length() >= family.length());
  Check(pn.GetDisplayNameWithTitle().length() >= pn.GetDisplayName().length());

  // Rebuilding and reparsing gives the same components back. A NUL byte
  // ends the separator search, so the relation only holds for NUL-free text.
  BPersonName copy(pn);
  Check(copy == pn);
  const ACE_CString rebuilt = copy.ToDICOMName();
  if (std::memchr(data, 0, size) == nullptr) {
    BPersonName again(rebuilt);
    Check(again == copy);
  }

  BPersonName display;
  Check(display.FromDisplayName(text));
  Check(display.GetDisplayName() == text);
  Check(display.GetDICOMName().length() == 0);
  if (size > 0) {
    BPersonName one;
    Check(one.FromDICOMName(static_cast<char>(data[0])));
    Check(one.GetDICOMName().length() == 1);
  }
  return 0;
}
