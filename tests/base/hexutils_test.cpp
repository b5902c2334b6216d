#include "common/base/hexutils.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(HexUtils, SingleDigits) {
  for (int v = 0; v < 256; ++v) {
    char c = Kelvane::BinToHex(static_cast<unsigned char>(v));
    if (v < 16) {
      EXPECT_EQ("0123456789ABCDEF"[v], c) << v;
      EXPECT_EQ(v, Kelvane::HexToBin(c)) << v;
    } else {
      EXPECT_EQ('\0', c) << v;
    }
  }
  struct Row {
    char c;
    unsigned char want;
  } rows[] = {{'a', 10},  {'f', 15},  {'F', 15},   {'g', 255},
              {'G', 255}, {'/', 255}, {':', 255},  {'@', 255},
              {'`', 255}, {' ', 255}, {'\0', 255}, {'\xB0', 255}};
  for (const Row& r : rows) {
    EXPECT_EQ(r.want, Kelvane::HexToBin(r.c)) << static_cast<int>(r.c);
  }
}

TEST(HexUtils, BufferRoundTripOverEveryByte) {
  unsigned char bytes[256];
  for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
  char hex[2 * 256 + 2];
  std::memset(hex, '#', sizeof hex);
  EXPECT_EQ(hex, Kelvane::BinBufToHexStr(bytes, 256, hex, true));
  EXPECT_EQ(512u, std::strlen(hex));
  EXPECT_EQ('#', hex[513]);
  EXPECT_EQ(0, std::strncmp("000102", hex, 6));
  EXPECT_EQ(0, std::strncmp("FEFF", hex + 508, 4));
  unsigned char back[256] = {};
  Kelvane::HexStrToBinBuf(hex, 512, back);
  EXPECT_EQ(0, std::memcmp(bytes, back, 256));
}

TEST(HexUtils, BinBufToHexStrWithoutTerminatorOrPointers) {
  const unsigned char bytes[] = {0xAB, 0x01};
  char out[6] = "#####";
  Kelvane::BinBufToHexStr(bytes, 2, out, false);
  EXPECT_STREQ("AB01#", out);
  char untouched[4] = "###";
  EXPECT_EQ(untouched, Kelvane::BinBufToHexStr(nullptr, 1, untouched, true));
  EXPECT_STREQ("###", untouched);
  EXPECT_EQ(nullptr, Kelvane::BinBufToHexStr(bytes, 2, nullptr, true));
  Kelvane::BinBufToHexStr(bytes, 0, out, true);
  EXPECT_STREQ("", out);
}

TEST(HexUtils, HexStrToBinBufOddLengthAndInvalidDigits) {
  struct Row {
    const char* hex;
    unsigned length;
    unsigned char want[3];  // out starts as 0x55 0x55 0x55
  } rows[] = {
      {"0aFf", 4, {0x0A, 0xFF, 0x55}},
      {"0aF", 3, {0x55, 0x55, 0x55}},  // odd: untouched
      {"0aFf", 3, {0x55, 0x55, 0x55}},
      {"0aFf", 2, {0x0A, 0x55, 0x55}},
      {"g0", 2, {0xF0, 0x55, 0x55}},  // 16*255 + 0, low 8 bits
      {"0g", 2, {0xFF, 0x55, 0x55}},
      {"zz", 2, {0xEF, 0x55, 0x55}},  // 16*255 + 255
      {"", 0, {0x55, 0x55, 0x55}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.hex) + "/" + std::to_string(r.length));
    unsigned char out[3] = {0x55, 0x55, 0x55};
    Kelvane::HexStrToBinBuf(r.hex, r.length, out);
    EXPECT_EQ(0, std::memcmp(r.want, out, 3));
  }
  unsigned char out[1] = {0x55};
  Kelvane::HexStrToBinBuf(nullptr, 2, out);
  EXPECT_EQ(0x55, out[0]);
  Kelvane::HexStrToBinBuf("00", 2, nullptr);  // no crash
}

TEST(HexUtils, AsciiHexDump) {
  const unsigned char bytes[] = {0x01, 0x02, 0x03, 0x04, 0xAB};
  struct Row {
    unsigned length;
    unsigned perLine;
    const char* want;
  } rows[] = {
      {5, 4, "01 02 03 04 \nAB \n"},
      {4, 4, "01 02 03 04 \n"},
      {4, 2, "01 02 \n03 04 \n"},
      {1, 16, "01 \n"},
      {3, 1, "01 \n02 \n03 \n"},
      {3, 0, "01 02 03 \n"},
      {0, 4, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.want);
    ACE_CString out("> ");
    Kelvane::AsciiHexDumpToString(bytes, r.length, r.perLine, out);
    EXPECT_EQ(std::string("> ") + r.want, out.c_str());
  }
  ACE_CString out("kept");
  Kelvane::AsciiHexDumpToString(nullptr, 5, 4, out);
  EXPECT_STREQ("kept", out.c_str());
}

}  // namespace
