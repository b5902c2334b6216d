#include "common/base/memoryallocationexception.h"

#include <cinttypes>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include <ace/OS_NS_sys_time.h>

#include <gtest/gtest.h>

#include "common/namedevent/internal/sharedevent.h"
#include "common/os/systeminfo.h"

#include "support/childprocess.h"
#include "support/logcapture.h"

namespace {

using Kelvane::MemoryAllocationException;

// The failing process is a fresh child, so its counter starts at 0 and its
// threshold is the default; this process plays the supervisor.
TEST(MemoryAllocationException, AnotherProcessSeesTheRestartEventFromThe16th) {
  testsupport::ChildProcess child;
  ASSERT_TRUE(child.Start({testsupport::ChildProgram(), "failures"}));
  Common::internal::SharedEvent restart;
  ASSERT_EQ(0, restart.Open(("Global\\KelvaneRestart_" +
                             std::to_string(static_cast<int>(child.pid())))
                                .c_str(),
                            true, false));
  for (int failure = 1; failure <= 17; ++failure) {
    SCOPED_TRACE(failure);
    EXPECT_EQ(std::to_string(failure), child.Ask("f"));
    ACE_Time_Value now = ACE_OS::gettimeofday();
    EXPECT_EQ(failure >= 16, restart.Wait(&now) == 0);
    if (failure >= 16) {
      ASSERT_EQ(0, restart.Reset());  // every later failure signals again
    }
  }
  EXPECT_EQ(0, child.Finish());
}

TEST(MemoryAllocationException, CountsAndLogsOneCriticalRecordEach) {
  const unsigned max =
      MemoryAllocationException::GetMaxGlobalAllocationFailures();
  MemoryAllocationException::SetMaxGlobalAllocationFailures(~0u);
  SYSTEMINFOSTRUCT mem{};
  SystemInfo::SystemMemoryInfoEx(&mem);
  testsupport::LogCapture log;
  const unsigned before =
      MemoryAllocationException::GetGlobalAllocationFailures();
  {
    MemoryAllocationException a("no room for pixels", "bufs.cpp", 77);
    MemoryAllocationException b("null file", nullptr, 5);
    b = a;  // copies are not counted
    MemoryAllocationException c(b);
    EXPECT_STREQ("no room for pixels", c.what());
  }
  EXPECT_EQ(before + 2,
            MemoryAllocationException::GetGlobalAllocationFailures());
  MemoryAllocationException::SetMaxGlobalAllocationFailures(max);

  ASSERT_EQ(2u, log.records().size());
  const std::string& text = log.records()[0].text;
  EXPECT_EQ(LM_CRITICAL, log.records()[0].priority);
  EXPECT_EQ(0u, text.find("MemoryAllocationException: no room for pixels.\n"
                          "(bufs.cpp:77)\nMemory Usage:\n"))
      << text;
  EXPECT_NE(std::string::npos,
            log.records()[1].text.find("MemoryAllocationException: null file."
                                       "\n(:5)\n"));
  unsigned load = 0;
  unsigned long long f[8];
  int n = std::sscanf(
      text.c_str() + text.find("Memory Usage:\n") + 14,
      "%u percent of memory is in use.\n%llu KB total physical memory.\n"
      "%llu KB free physical memory.\n%llu KB total paging file.\n"
      "%llu KB free paging file.\n%llu KB total virtual memory.\n"
      "%llu KB free virtual memory.\n%llu KB extended memory.\n",
      &load, &f[0], &f[1], &f[2], &f[3], &f[4], &f[5], &f[6]);
  ASSERT_EQ(8, n) << text;
  EXPECT_TRUE(load <= 100 && f[1] <= f[0]);
  EXPECT_EQ(std::vector<unsigned long long>(
                {mem.totalPhysKB, mem.totalPageFileKB, mem.totalVirtualKB, 0}),
            std::vector<unsigned long long>({f[0], f[2], f[4], f[6]}));
}

// The getter gives bytes / 1024 / 1000 of a field only 32 bits wide.
TEST(MemoryAllocationException, RequiredBufferLengthGetterIsNotTheSetter) {
  MemoryAllocationException::SetRequiredBufferLength(1048576000ul);
  EXPECT_EQ(1024u, MemoryAllocationException::GetRequiredBufferLength());
  MemoryAllocationException::SetRequiredBufferLength(0x100000000ul + 1024000);
  EXPECT_EQ(1u, MemoryAllocationException::GetRequiredBufferLength());
  MemoryAllocationException::SetRequiredBufferLength(0);
}

}  // namespace
