// MultiInputStream: several input streams read as one, in the order they
// were added.
//
// Each member is read to its end (a read returning 0) before the next one;
// members are read from wherever their own position stands when they are
// reached, nothing is rewound. Members may be added while reading is under
// way. A member is borrowed (the caller keeps it alive and deletes it) or
// owned (deleted, through its virtual destructor, with this stream).
//
//   InputMemStream header(prefix, prefixSize);
//   MultiInputStream all;
//   all.AddStream(header);                                 // borrowed
//   all.AddStream(new InputZMemStream(block, size), true); // owned
//   out << all;
//
// Thread safety: one thread at a time, the members included.
#ifndef COM_COMMON_IOSTREAMS_MULTIINPUTSTREAM_H_
#define COM_COMMON_IOSTREAMS_MULTIINPUTSTREAM_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "common/base/comexport.h"
#include "common/iostreams/inputstream.h"

class COM_EXPORT MultiInputStream : public InputStream {
 public:
  MultiInputStream();
  // Deletes the owned members, in the order they were added.
  ~MultiInputStream() override;

  // Appends a borrowed member.
  void AddStream(InputStream& stream);
  // Appends a member, owned when `owned` is true. A null stream is ignored
  // (an owned one would otherwise be deleted as null, harmlessly, but read
  // as a crash).
  void AddStream(InputStream* stream, bool owned);

  // Bytes delivered so far.
  unsigned CurPos() const override;
  // Fills `buffer` from the current member on, moving to the next member
  // when one returns 0, until `count` bytes are read or every member is
  // done; 0 with no members, for a `count` of 0, or at the end. Exceptions
  // of a member pass through; bytes it delivered before count in CurPos().
  unsigned ReadBytes(void* buffer, unsigned count) override;
  // The sum of the members' Size() (32-bit), those already read included;
  // 0 with no members.
  unsigned Size() const override;

 private:
  std::vector<std::pair<InputStream*, bool>> members_;
  uint32_t position_;
  uint32_t current_;
};

#endif  // COM_COMMON_IOSTREAMS_MULTIINPUTSTREAM_H_
