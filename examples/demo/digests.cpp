#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "common/base/base64coder.h"
#include "common/base/crc32.h"
#include "common/base/hexutils.h"
#include "common/base/kelvanecrypt.h"
#include "common/base/md5wrapper.h"
#include "common/base/sha256.h"

#include "demo.h"

namespace {

void Digests() {
  const std::string path = demo::ScratchDir() + "/study.txt";
  const std::string content =
      "StudyInstanceUID=1.2.840.113619.2.55.3\nPatientName=DOE^JANE\n";
  std::ofstream(path, std::ios::binary) << content;
  std::printf("file:                %s (%zu bytes)\n", path.c_str(),
              content.size());

  Kelvane::md5wrapper md5;
  std::printf("MD5:                 %s\n", md5.getHashFromFile(path).c_str());

  std::vector<unsigned char> bytes(content.begin(), content.end());
  Kelvane::SHA256 sha;
  std::printf("SHA-256:             %s\n",
              sha.GetHash(bytes.data(), bytes.size()).c_str());

  unsigned long crc = 0;
  Kelvane::CalculateCRC32(path.c_str(), crc);
  std::printf("CRC-32:              %08lX\n", crc);

  Base64Coder b64;
  ACE_CString text;
  b64.Encode(text, bytes.data(), 16);
  unsigned back = 0;
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> decoded =
      b64.Decode(text.c_str(), static_cast<unsigned>(text.length()), back);
  std::printf("Base64 of 16 bytes:  %s (decodes to %u bytes: '%.*s')\n",
              text.c_str(), back, static_cast<int>(back), decoded.get());

  ACE_CString dump;
  Kelvane::AsciiHexDumpToString(bytes.data(), 12, 8, dump);
  std::printf("hex dump of 12 bytes, 8 per line:\n%s", dump.c_str());

  const char* secret = "archive-service-password";
  std::vector<char> scrambled(std::strlen(secret) + 1);
  std::vector<char> plain(std::strlen(secret) + 1);
  KelvaneCrypt::Encrypt(secret, scrambled.data());
  KelvaneCrypt::Decrypt(scrambled.data(), plain.data());
  std::vector<char> hex(2 * scrambled.size() + 1);
  Kelvane::BinBufToHexStr(
      reinterpret_cast<const unsigned char*>(scrambled.data()),
      static_cast<unsigned>(std::strlen(secret)), hex.data(), true);
  std::printf("scrambled '%s':\n  %s\nunscrambled:         '%s'\n", secret,
              hex.data(), plain.data());
}

}  // namespace

COM_DEMO_SECTION(20, "Encoders and digests", Digests);
