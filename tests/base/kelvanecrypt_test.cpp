#include "common/base/kelvanecrypt.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Runs `fn` on `text` into a buffer one byte longer, which must end up
// holding the terminator.
std::string Apply(void (*fn)(const char*, char*), const std::string& text) {
  std::vector<char> out(text.size() + 1, '#');
  fn(text.c_str(), out.data());
  EXPECT_EQ('\0', out[text.size()]);
  return std::string(out.data(), text.size());
}

TEST(KelvaneCrypt, KnownScramblesAndRoundTrips) {
  // 'A' ^ 0x3C = 0x7D; the key index moves on by 0x7D (125 % 15 = 5):
  // 'B' ^ 0xD2 = 0x90; then by 0x90 (269 % 15 = 14): 'C' ^ 0xB8 = 0xFB.
  EXPECT_EQ("\x7D\x90\xFB", Apply(KelvaneCrypt::Encrypt, "ABC"));
  EXPECT_EQ("ABC", Apply(KelvaneCrypt::Decrypt, "\x7D\x90\xFB"));
  // A byte meeting its own key byte scrambles to '\0' and cuts the text.
  EXPECT_EQ('\0', Apply(KelvaneCrypt::Encrypt,
                        "\x3C"
                        "abc")[0]);

  std::mt19937 gen(14);
  int checked = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string plain(gen() % 64, ' ');
    for (char& c : plain) c = static_cast<char>(1 + gen() % 255);
    std::string scrambled = Apply(KelvaneCrypt::Encrypt, plain);
    if (scrambled.find('\0') != std::string::npos) continue;
    ASSERT_EQ(plain, Apply(KelvaneCrypt::Decrypt, scrambled)) << round;
    ++checked;
  }
  EXPECT_GT(checked, 1000);
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
