#include "common/base/kelvanecrypt.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Encrypt(const std::string& plain) {
  std::vector<char> out(plain.size() + 1, '#');
  KelvaneCrypt::Encrypt(plain.c_str(), out.data());
  EXPECT_EQ('\0', out[plain.size()]);
  return std::string(out.data(), plain.size());
}

std::string Decrypt(const std::string& scrambled) {
  std::vector<char> out(scrambled.size() + 1, '#');
  KelvaneCrypt::Decrypt(scrambled.c_str(), out.data());
  EXPECT_EQ('\0', out[scrambled.size()]);
  return std::string(out.data(), scrambled.size());
}

TEST(KelvaneCrypt, KnownScrambles) {
  // 'A' ^ 0x3C = 0x7D; the key index moves on by 0x7D (125 % 15 = 5):
  // 'B' ^ 0xD2 = 0x90; then by 0x90 (269 % 15 = 14): 'C' ^ 0xB8 = 0xFB.
  struct Row {
    std::string plain;
    std::string scrambled;
  } rows[] = {
      {"", ""},
      {"A", "\x7D"},
      {"AB", "\x7D\x90"},
      {"ABC", "\x7D\x90\xFB"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.plain);
    EXPECT_EQ(r.scrambled, Encrypt(r.plain));
    EXPECT_EQ(r.plain, Decrypt(r.scrambled));
  }
}

TEST(KelvaneCrypt, DecryptUndoesEncrypt) {
  std::mt19937 gen(14);
  int checked = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string plain(gen() % 64, ' ');
    for (char& c : plain) c = static_cast<char>(1 + gen() % 255);
    std::string scrambled = Encrypt(plain);
    // A byte meeting its own key byte scrambles to '\0' and cuts the text.
    if (scrambled.find('\0') != std::string::npos) continue;
    ASSERT_EQ(plain, Decrypt(scrambled)) << round;
    ++checked;
  }
  EXPECT_GT(checked, 1000);
}

TEST(KelvaneCrypt, PlainByteEqualToItsKeyByteCutsTheText) {
  std::string scrambled = Encrypt(
      "\x3C"
      "abc");
  EXPECT_EQ('\0', scrambled[0]);
  EXPECT_EQ(0u, std::strlen(scrambled.c_str()));
}

TEST(KelvaneCrypt, NullArgumentsDoNothing) {
  char out[4] = "###";
  KelvaneCrypt::Encrypt(nullptr, out);
  KelvaneCrypt::Decrypt(nullptr, out);
  EXPECT_STREQ("###", out);
  KelvaneCrypt::Encrypt("abc", nullptr);
  KelvaneCrypt::Decrypt("abc", nullptr);
}

}  // namespace
