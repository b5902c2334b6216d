#include "common/base/handle.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

TEST(Handle, ClosesWhatItHoldsWhenDestroyed) {
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  {
    Handle reader(fds[0]);
    Handle writer(ACE_INVALID_HANDLE);
    ACE_HANDLE* out = writer;  // filled like an out-parameter
    *out = fds[1];
    EXPECT_EQ(fds[0], static_cast<ACE_HANDLE&>(reader));
    EXPECT_TRUE(IsOpen(fds[0]));
    EXPECT_TRUE(IsOpen(fds[1]));
  }
  EXPECT_FALSE(IsOpen(fds[0]));
  EXPECT_FALSE(IsOpen(fds[1]));
}

TEST(Handle, InvalidValueOrOverwrittenValueIsNotClosed) {
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  {
    Handle h(fds[0]);
    static_cast<ACE_HANDLE&>(h) = ACE_INVALID_HANDLE;  // caller takes it back
  }
  EXPECT_TRUE(IsOpen(fds[0]));
  {
    Handle h(fds[1]);
    ACE_HANDLE& ref = h;
    ref = fds[0];  // now owns the reader instead
  }
  EXPECT_FALSE(IsOpen(fds[0]));
  EXPECT_TRUE(IsOpen(fds[1]));
  ::close(fds[1]);
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
