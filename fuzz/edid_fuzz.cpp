// Decodes arbitrary bytes as an EDID base block. A block is accepted exactly
// when its header and checksum are right; with both made right any bytes
// are accepted, and the decoded fields stay within what the block's bit
// fields can hold.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/os/monitorprop.h"

namespace {

void CheckFields(const MonProp& m) {
  if (!m.edidValid || m.manufacturer.length() != 3) std::abort();
  for (size_t i = 0; i < 3; ++i) {
    if (m.manufacturer[i] < '@' || m.manufacturer[i] > '_') std::abort();
  }
  if (m.modelName.length() > 13 || m.serialText.length() > 13) std::abort();
  for (const ACE_CString* s : {&m.modelName, &m.serialText}) {
    for (size_t i = 0; i < s->length(); ++i) {
      if ((*s)[i] < 0x20 || (*s)[i] > 0x7E) std::abort();
    }
  }
  if (m.preferredWidth > 4095 || m.preferredHeight > 4095) std::abort();
  if (m.widthMm > 4095 || m.heightMm > 4095) std::abort();
  if (m.productCode > 0xFFFF) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF,
                                     0xFF, 0xFF, 0xFF, 0x00};
  MonProp m;
  const bool ok = MonitorProp::ParseEdid(data, size, m);
  unsigned sum = 0;
  for (size_t i = 0; i < 128 && i < size; ++i) sum += data[i];
  const bool valid =
      size >= 128 && std::memcmp(data, kHeader, 8) == 0 && (sum & 0xFF) == 0;
  if (ok != valid) std::abort();
  if (ok) CheckFields(m);

  if (size < 128) return 0;
  std::vector<uint8_t> block(data, data + 128);
  std::memcpy(block.data(), kHeader, 8);
  sum = 0;
  for (size_t i = 0; i < 127; ++i) sum += block[i];
  block[127] = static_cast<uint8_t>(0x100 - (sum & 0xFF));
  MonProp fixed;
  if (!MonitorProp::ParseEdid(block.data(), block.size(), fixed)) std::abort();
  CheckFields(fixed);
  return 0;
}
