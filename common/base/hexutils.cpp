#include "common/base/hexutils.h"

#include <string>

namespace Kelvane {
namespace {
const char kUpperDigits[] = "0123456789ABCDEF";
}  // namespace

char BinToHex(unsigned char nibble) {
  return nibble < 16 ? kUpperDigits[nibble] : '\0';
}

unsigned char HexToBin(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned char>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned char>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned char>(c - 'A' + 10);
  return 255;
}

char* BinBufToHexStr(const unsigned char* data, unsigned length, char* out,
                     bool terminate) {
  if (data == nullptr || out == nullptr) return out;
  for (size_t i = 0; i < length; ++i) {
    out[2 * i] = kUpperDigits[data[i] >> 4];
    out[2 * i + 1] = kUpperDigits[data[i] & 0x0F];
  }
  if (terminate) out[2 * static_cast<size_t>(length)] = '\0';
  return out;
}

void HexStrToBinBuf(const char* hex, unsigned hexLength, unsigned char* out) {
  if (hex == nullptr || out == nullptr || hexLength % 2 != 0) return;
  for (size_t i = 0; i < hexLength / 2; ++i) {
    out[i] = static_cast<unsigned char>(16 * HexToBin(hex[2 * i]) +
                                        HexToBin(hex[2 * i + 1]));
  }
}

void AsciiHexDumpToString(const unsigned char* data, unsigned length,
                          unsigned bytesPerLine, ACE_CString& out) {
  if (data == nullptr || length == 0) return;
  std::string text;
  text.reserve(3 * static_cast<size_t>(length) +
               (bytesPerLine ? length / bytesPerLine : 0) + 1);
  for (size_t i = 0; i < length; ++i) {
    text += kUpperDigits[data[i] >> 4];
    text += kUpperDigits[data[i] & 0x0F];
    text += ' ';
    if (bytesPerLine != 0 && (i + 1) % bytesPerLine == 0) text += '\n';
  }
  if (bytesPerLine == 0 || length % bytesPerLine != 0) text += '\n';
  out.append(text.data(), text.size());
}

}  // namespace Kelvane
