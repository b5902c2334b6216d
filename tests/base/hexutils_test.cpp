#include "common/base/hexutils.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(HexUtils, SingleDigits) {
  for (int v = 0; v < 256; ++v) {
    char c = Kelvane::BinToHex(static_cast<unsigned char>(v));
    EXPECT_EQ(v < 16 ? "0123456789ABCDEF"[v] : '\0', c) << v;
    if (v < 16) {
      EXPECT_EQ(v, Kelvane::HexToBin(c)) << v;
    }
  }
  // Lower case is read too; the neighbours of every digit range are not.
  std::string got;
  for (char c : std::string("afF/:@G`g\xB0")) {
    got += std::to_string(Kelvane::HexToBin(c)) + " ";
  }
  EXPECT_EQ("10 15 15 255 255 255 255 255 255 255 ", got);
}

TEST(HexUtils, BufferRoundTripOverEveryByte) {
  unsigned char bytes[256];
  for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
  char hex[2 * 256 + 2];
  std::memset(hex, '#', sizeof hex);
  EXPECT_EQ(hex, Kelvane::BinBufToHexStr(bytes, 256, hex, true));
  EXPECT_EQ("000102|FEFF|#",
            std::string(hex, 6) + "|" + (hex + 508) + "|" + hex[513]);
  unsigned char back[256] = {};
  Kelvane::HexStrToBinBuf(hex, 512, back);
  EXPECT_EQ(0, std::memcmp(bytes, back, 256));

  // Without the terminator; no data leaves the text as it was.
  const unsigned char two[] = {0xAB, 0x01};
  char out[6] = "#####";
  Kelvane::BinBufToHexStr(two, 2, out, false);
  EXPECT_EQ(out, Kelvane::BinBufToHexStr(nullptr, 1, out, true));
  EXPECT_STREQ("AB01#", out);
  EXPECT_EQ(nullptr, Kelvane::BinBufToHexStr(two, 2, nullptr, true));
}

TEST(HexUtils, HexStrToBinBufOddLengthAndInvalidDigits) {
  struct Row {
    const char* hex;
    unsigned length;
    unsigned char want[2];  // out starts as 0x55 0x55
  } rows[] = {
      {"0aFf", 4, {0x0A, 0xFF}},  {"0aFf", 3, {0x55, 0x55}},  // odd: untouched
      {"g0", 2, {0xF0, 0x55}},  // 16*255 + 0, low 8 bits
      {"zz", 2, {0xEF, 0x55}},  // 16*255 + 255
      {nullptr, 2, {0x55, 0x55}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message()
                 << (r.hex ? r.hex : "null") << "/" << r.length);
    unsigned char out[2] = {0x55, 0x55};
    Kelvane::HexStrToBinBuf(r.hex, r.length, out);
    EXPECT_EQ(0, std::memcmp(r.want, out, 2));
  }
  Kelvane::HexStrToBinBuf("00", 2, nullptr);  // no crash
}

TEST(HexUtils, AsciiHexDump) {
  const unsigned char bytes[] = {0x01, 0x02, 0x03, 0x04, 0xAB};
  struct Row {
    const unsigned char* data;
    unsigned length;
    unsigned perLine;
    const char* want;
  } rows[] = {
      {bytes, 5, 4, "01 02 03 04 \nAB \n"},
      {bytes, 4, 2, "01 02 \n03 04 \n"},
      {bytes, 3, 0, "01 02 03 \n"},
      {nullptr, 5, 4, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want);
    ACE_CString out("> ");
    Kelvane::AsciiHexDumpToString(r.data, r.length, r.perLine, out);
    EXPECT_EQ(std::string("> ") + r.want, out.c_str());
  }
}

}  // namespace
