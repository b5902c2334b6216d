#include "common/namedevent/internal/sharedevent.h"

#include <errno.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

namespace {

using Common::internal::SharedEvent;

std::string UniqueName(const char* what) {
  return std::string("Global\\ComTest_") + what + "_" +
         std::to_string(static_cast<int>(::getpid()));
}

bool Poll(SharedEvent& ev) {
  ACE_Time_Value now = ACE_OS::gettimeofday();
  return ev.Wait(&now) == 0;
}

// Writes `bytes` to a new file at `path` with `mode`.
void Plant(const ACE_CString& path, const std::string& bytes, mode_t mode) {
  int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, mode);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
            ::write(fd, bytes.data(), bytes.size()));
  ::close(fd);
}

TEST(SharedEvent, NamesMapToOneFileEach) {
  EXPECT_STREQ("/dev/shm/com-event...%2Fetc%2Fpasswd",
               SharedEvent::PathFor("../etc/passwd").c_str());
  EXPECT_STREQ("/dev/shm/com-event.a%252Fb",
               SharedEvent::PathFor("a%2Fb").c_str());
}

// Manual reset, made under umask 077 yet open to every user; it lives while
// any holder has it open.
TEST(SharedEvent, LivesWhileAnyHolderHasItOpen) {
  std::string name = UniqueName("life");
  ACE_CString path = SharedEvent::PathFor(name.c_str());
  struct stat st;
  {
    SharedEvent creator, user;
    mode_t old = ::umask(077);
    ASSERT_EQ(0, creator.Open(name.c_str(), true, true));
    ::umask(old);
    ASSERT_EQ(0, user.Open(name.c_str(), true, false));  // state ignored
    ASSERT_EQ(0, ::stat(path.c_str(), &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);
    creator.Close();
    EXPECT_TRUE(Poll(user));
    EXPECT_TRUE(Poll(user));
  }  // the last holder removes it
  EXPECT_NE(0, ::lstat(path.c_str(), &st));
}

TEST(SharedEvent, AutoResetWaitConsumesTheSignal) {
  SharedEvent ev;
  ASSERT_EQ(0, ev.Open(UniqueName("auto").c_str(), false, true));
  EXPECT_TRUE(Poll(ev));
  ACE_Time_Value soon = ACE_OS::gettimeofday() + ACE_Time_Value(0, 20000);
  EXPECT_EQ(-1, ev.Wait(&soon));
  EXPECT_EQ(ETIME, errno);
}

// With no holder left, an empty file (killed before sizing it) and a sized
// one whose word says signalled open as a fresh clear event; a stranger's
// file of another size is not taken for an event.
TEST(SharedEvent, LeftoversAndStrangersFiles) {
  std::string name = UniqueName("leftover");
  ACE_CString path = SharedEvent::PathFor(name.c_str());
  for (size_t size : {size_t{0}, sizeof(Common::internal::SharedEventData)}) {
    SCOPED_TRACE(size);
    Plant(path, std::string(size, '\xff'), 0666);
    SharedEvent ev;
    ASSERT_EQ(0, ev.Open(name.c_str(), true, false));
    EXPECT_FALSE(Poll(ev));
  }
  Plant(path, "abc", 0600);
  SharedEvent ev;
  EXPECT_EQ(-1, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(EINVAL, errno);
  ::unlink(path.c_str());
  ASSERT_EQ(0, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(-1, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(EBUSY, errno);
}

}  // namespace
