// The wire format between archive_client and archive_node, and the few
// helpers both sides share.
//
// A connection carries any number of studies, one at a time:
//   client -> node  u32 LE  UID length (1..64)
//                   bytes   the study instance UID (digits and dots)
//                   u64 LE  study length (at most kMaxStudyBytes; an empty
//                           study is answered kRejected)
//                   bytes   the study
//   node -> client  1 byte  kStored once the study is durable on disk,
//                           kRejected when it was not stored (bad UID,
//                           empty study, a failure to store)
// The client sends the next study only after the answer to the last one.
#ifndef COM_EXAMPLES_ARCHIVE_NODE_PROTOCOL_H_
#define COM_EXAMPLES_ARCHIVE_NODE_PROTOCOL_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace archive {

const unsigned char kStored = 'S';
const unsigned char kRejected = 'R';
const std::uint32_t kMaxUidBytes = 64;
const std::uint64_t kMaxStudyBytes = 256ull << 20;
// The name of the compressed study inside its study folder.
const char kStudyFile[] = "study.z";
// Configuration section of the node.
const char kConfigSection[] = "Software\\Kelvane\\ArchiveNode";

inline bool ValidUid(const std::string& uid) {
  if (uid.empty() || uid.size() > kMaxUidBytes) return false;
  if (uid.front() == '.' || uid.back() == '.') return false;
  char last = 0;
  for (char c : uid) {
    if (c != '.' && (c < '0' || c > '9')) return false;
    if (c == '.' && last == '.') return false;
    last = c;
  }
  return true;
}

inline void PutLe(unsigned char* out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline std::uint64_t GetLe(const unsigned char* in, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | in[i];
  return value;
}

}  // namespace archive

#endif  // COM_EXAMPLES_ARCHIVE_NODE_PROTOCOL_H_
