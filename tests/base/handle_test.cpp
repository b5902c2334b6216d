#include "common/base/handle.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

// It closes whatever it holds when it goes, whether filled in through the
// pointer or put over an earlier value (which it leaves alone).
TEST(Handle, ClosesWhatItHoldsWhenDestroyed) {
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  const int earlier = ::dup(fds[1]);
  ASSERT_NE(-1, earlier);
  {
    Handle reader(ACE_INVALID_HANDLE);
    ACE_HANDLE* out = reader;  // filled like an out-parameter
    *out = fds[0];
    Handle writer(earlier);
    static_cast<ACE_HANDLE&>(writer) = fds[1];
  }
  EXPECT_FALSE(IsOpen(fds[0]));
  EXPECT_FALSE(IsOpen(fds[1]));
  EXPECT_TRUE(IsOpen(earlier));
  {
    Handle h(earlier);
    static_cast<ACE_HANDLE&>(h) = ACE_INVALID_HANDLE;  // caller takes it back
  }
  EXPECT_TRUE(IsOpen(earlier));
  ::close(earlier);
}

TEST(Handle, ZeroIsAnOrdinaryDescriptor) {
  // Descriptor 0 gets a pipe end for the test; stdin is put back after.
  int saved = ::dup(0);
  ASSERT_NE(-1, saved);
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  ASSERT_EQ(0, ::dup2(fds[0], 0));
  ::close(fds[0]);
  { Handle h(0); }
  bool stillOpen = IsOpen(0);
  ::dup2(saved, 0);
  ::close(saved);
  ::close(fds[1]);
  EXPECT_FALSE(stillOpen);
}

}  // namespace
