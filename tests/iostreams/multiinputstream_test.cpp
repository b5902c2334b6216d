#include "common/iostreams/multiinputstream.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/iostreams/inputmemstream.h"
#include "common/iostreams/outputmemstream.h"
#include "common/iostreams/streamcopy.h"

#include "iostreams/streamtestutil.h"

namespace {

// Counts its deletions; gives at most `step` bytes a call, like a source
// that delivers what it has at hand.
class TrackedStream : public InputMemStream {
 public:
  TrackedStream(const char* text, unsigned step, int* deletions)
      : InputMemStream(text), step_(step), deletions_(deletions) {}
  ~TrackedStream() override { ++*deletions_; }
  unsigned ReadBytes(void* buffer, unsigned count) override {
    return InputMemStream::ReadBytes(buffer, std::min(count, step_));
  }

 private:
  unsigned step_;
  int* deletions_;
};

TEST(MultiInputStream, OwnedMembersDieWithItBorrowedOnesDoNot) {
  int ownedDeleted = 0, borrowedDeleted = 0;
  TrackedStream borrowed("BORROWED", 3, &borrowedDeleted);
  {
    MultiInputStream multi;
    multi.AddStream(new TrackedStream("owned-1;", 2, &ownedDeleted), true);
    multi.AddStream(borrowed);
    multi.AddStream(nullptr, true);
    multi.AddStream(new TrackedStream(";owned-2", 5, &ownedDeleted), true);
    // Short reads from a member are asked again within the same call.
    OutputMemStream out(0, 0, nullptr);
    out << multi;
    EXPECT_EQ("owned-1;BORROWED;owned-2", streamtest::Contents(out));
    EXPECT_EQ(0, ownedDeleted);
  }
  EXPECT_EQ(2, ownedDeleted);
  EXPECT_EQ(0, borrowedDeleted);
}

TEST(MultiInputStream, MembersAddedWhileReadingAndPartlyReadOnes) {
  InputMemStream a("abc"), b("defg"), c("xyz"), d("late"), empty("");
  char buf[16];
  ASSERT_EQ(2u, b.ReadBytes(buf, 2));  // b stands at "fg"
  MultiInputStream multi;
  multi.AddStream(a);
  multi.AddStream(empty);
  multi.AddStream(b);
  ASSERT_EQ(2u, multi.ReadBytes(buf, 2));
  multi.AddStream(c);
  ASSERT_EQ(6u, multi.ReadBytes(buf, sizeof buf));
  EXPECT_EQ(0u, multi.ReadBytes(buf + 6, sizeof buf - 6));
  multi.AddStream(d);  // added after the end: reached in turn
  ASSERT_EQ(4u, multi.ReadBytes(buf + 6, sizeof buf - 6));
  EXPECT_EQ("cfgxyzlate", std::string(buf, 10));
  EXPECT_EQ(12u, multi.CurPos());
  EXPECT_EQ(14u, multi.Size()) << "members count whole, read or not";
}

}  // namespace
