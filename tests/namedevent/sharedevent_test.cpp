#include "common/namedevent/internal/sharedevent.h"

#include <errno.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

#include "support/childprocess.h"

namespace {

using Common::internal::SharedEvent;

std::string UniqueName(const char* what) {
  return std::string("Global\\ComTest_") + what + "_" +
         std::to_string(static_cast<int>(::getpid()));
}

bool Exists(const ACE_CString& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

bool Poll(SharedEvent& ev) {
  ACE_Time_Value now = ACE_OS::gettimeofday();
  return ev.Wait(&now) == 0;
}

TEST(SharedEvent, NamesMapToOneFileEach) {
  struct Row {
    const char* name;
    const char* path;
  } rows[] = {
      {"Global\\KelvaneRestart_42",
       "/dev/shm/com-event.Global\\KelvaneRestart_42"},
      {"../etc/passwd", "/dev/shm/com-event...%2Fetc%2Fpasswd"},
      {"a%2Fb", "/dev/shm/com-event.a%252Fb"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_STREQ(r.path, SharedEvent::PathFor(r.name).c_str());
  }
}

TEST(SharedEvent, AnotherProcessSeesSignalAndReset) {
  std::string name = UniqueName("cross");
  testsupport::ChildProcess child;
  ASSERT_TRUE(child.Start({testsupport::ChildProgram(), "event", name}));
  std::string line;
  ASSERT_TRUE(child.ReadLine(&line));
  ASSERT_EQ("ready", line);  // the child created it

  SharedEvent ev;
  ASSERT_EQ(0, ev.Open(name.c_str(), false, true));  // mode and state ignored
  EXPECT_FALSE(Poll(ev));
  EXPECT_EQ("0", child.Ask("?"));
  // A child blocked in a wait is woken by this process's signal.
  ASSERT_TRUE(child.Send("w 10000"));
  ::usleep(50000);
  ASSERT_EQ(0, ev.Signal());
  ASSERT_TRUE(child.ReadLine(&line));
  EXPECT_EQ("1", line);
  // Manual reset: it stays signalled for both sides until reset.
  EXPECT_TRUE(Poll(ev));
  EXPECT_EQ("ok", child.Ask("r"));
  EXPECT_FALSE(Poll(ev));
  EXPECT_EQ("ok", child.Ask("s"));
  EXPECT_TRUE(Poll(ev));
  EXPECT_EQ(0, child.Finish());
}

TEST(SharedEvent, LivesWhileAnyHolderHasItOpen) {
  std::string name = UniqueName("life");
  ACE_CString path = SharedEvent::PathFor(name.c_str());
  {
    SharedEvent creator, user;
    ASSERT_EQ(0, creator.Open(name.c_str(), true, true));
    ASSERT_EQ(0, user.Open(name.c_str(), true, false));
    creator.Close();  // the creator leaving does not end the event
    EXPECT_TRUE(Exists(path));
    EXPECT_TRUE(Poll(user));
  }  // the last holder removes it
  EXPECT_FALSE(Exists(path));
  SharedEvent fresh;
  ASSERT_EQ(0, fresh.Open(name.c_str(), true, false));
  EXPECT_FALSE(Poll(fresh));
}

TEST(SharedEvent, AutoResetWaitConsumesTheSignal) {
  std::string name = UniqueName("auto");
  SharedEvent ev;
  ASSERT_EQ(0, ev.Open(name.c_str(), false, true));
  EXPECT_TRUE(Poll(ev));
  EXPECT_FALSE(Poll(ev));
  ACE_Time_Value soon = ACE_OS::gettimeofday() + ACE_Time_Value(0, 20000);
  EXPECT_EQ(-1, ev.Wait(&soon));
  EXPECT_EQ(ETIME, errno);
}

TEST(SharedEvent, OpenToEveryUserWhateverTheUmask) {
  std::string name = UniqueName("mode");
  mode_t old = ::umask(077);
  SharedEvent ev;
  int rc = ev.Open(name.c_str(), true, false);
  ::umask(old);
  ASSERT_EQ(0, rc);
  struct stat st;
  ASSERT_EQ(0, ::stat(SharedEvent::PathFor(name.c_str()).c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 07777);

  // Another user's open and signal: NamedEvent's tests.
}

// What a process killed half-way leaves behind, with no holder left, opens
// as a fresh clear event: an empty file (killed before sizing it) and a
// sized one whose word says signalled (killed before removing it).
TEST(SharedEvent, LeftoversWithoutHolderOpenFresh) {
  std::string name = UniqueName("leftover");
  ACE_CString path = SharedEvent::PathFor(name.c_str());
  for (size_t size : {size_t{0}, sizeof(Common::internal::SharedEventData)}) {
    SCOPED_TRACE(size);
    std::string bytes(size, '\xff');
    int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(size), ::write(fd, bytes.data(), size));
    ::close(fd);
    SharedEvent ev;
    ASSERT_EQ(0, ev.Open(name.c_str(), true, false));
    EXPECT_FALSE(Poll(ev));
  }
}

TEST(SharedEvent, RefusesBadUse) {
  SharedEvent ev;
  EXPECT_EQ(-1, ev.Signal());
  EXPECT_EQ(EBADF, errno);
  for (const char* bad : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(-1, ev.Open(bad, true, false));
    EXPECT_EQ(EINVAL, errno);
  }

  // A stranger's file under the event's path is not taken for an event.
  std::string name = UniqueName("squat");
  ACE_CString path = SharedEvent::PathFor(name.c_str());
  int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(3, ::write(fd, "abc", 3));
  ::close(fd);
  EXPECT_EQ(-1, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(EINVAL, errno);
  ::unlink(path.c_str());

  ASSERT_EQ(0, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(-1, ev.Open(name.c_str(), true, false));
  EXPECT_EQ(EBUSY, errno);
}

}  // namespace
