#include "common/base/debugtrigger.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include <ace/Log_Msg.h>

#include <gtest/gtest.h>

#include "support/childprocess.h"
#include "support/logcapture.h"
#include "support/tempfolder.h"
#include "support/waitfor.h"

namespace {

const char kHeader[] = "[Software\\Kelvane\\QuillonServer\\System]\n";

// Points the configuration at a file of a temporary folder for one test and
// puts the process-wide log mask back afterwards.
class DebugTriggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(folder_.ok());
    file_ = folder_.File("kelvane.ini");
    ::setenv("KELVANE_CONFIG", file_.c_str(), 1);
    mask_ = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
  }
  void TearDown() override {
    ACE_LOG_MSG->priority_mask(mask_, ACE_Log_Msg::PROCESS);
    ::unsetenv("KELVANE_CONFIG");
  }
  std::string Read() const { return testsupport::TempFolder::Read(file_); }
  static bool DebugOn() {
    return (ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS) & LM_DEBUG) != 0;
  }
  // An editor's save: a copy written beside the file and renamed over it.
  void SaveByRename(const std::string& text) {
    std::string copy = folder_.Write("kelvane.ini~", text);
    ASSERT_EQ(0, std::rename(copy.c_str(), file_.c_str()));
  }

  testsupport::TempFolder folder_;
  std::string file_;
  u_long mask_ = 0;
};

TEST_F(DebugTriggerTest, ValueDecidesAndOnlyTheDebugBitMoves) {
  struct Row {
    const char* value;
    bool on;
  } rows[] = {{"7", true}, {"0", false}, {"-1", false}, {"yes", false}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.value);
    folder_.Write("kelvane.ini",
                  std::string(kHeader) + "Debug=" + r.value + "\n");
    // Start from the opposite state, with a neighbour bit that must stay.
    u_long start = LM_ERROR | (r.on ? 0 : LM_DEBUG);
    ACE_LOG_MSG->priority_mask(start, ACE_Log_Msg::PROCESS);
    testsupport::LogCapture log;
    DebugTrigger trigger(false);
    EXPECT_EQ(r.on, DebugOn());
    EXPECT_TRUE(ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS) & LM_ERROR);
    ASSERT_FALSE(log.records().empty());
    EXPECT_EQ(r.on ? "DebugTrigger::SetDebugging: Debugging mode activated.\n"
                   : "DebugTrigger::SetDebugging: Debugging mode disabled.\n",
              log.records().back().text);
  }
}

TEST_F(DebugTriggerTest, UnwritableFolderLeavesItInert) {
  ::setenv("KELVANE_CONFIG", folder_.File("missing/kelvane.ini").c_str(), 1);
  ACE_LOG_MSG->priority_mask(LM_DEBUG, ACE_Log_Msg::PROCESS);
  testsupport::LogCapture log;
  DebugTrigger trigger(false);
  EXPECT_TRUE(DebugOn());  // untouched
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_ERROR, log.records()[0].priority);
  EXPECT_EQ(0u, log.records()[0].text.find(
                    "DebugTrigger::DebugTrigger: Could not start DebugTrigger: "
                    "OS Error: "));
}

// A running service (a child with its reactor loop) follows the file as it
// is edited in place and by rename.
TEST_F(DebugTriggerTest, RunningLoopFollowsEditsInPlaceAndByRename) {
  testsupport::ChildProcess child;
  const auto shows = [&child](const char* want) {
    return testsupport::WaitFor([&] { return child.Ask("?") == want; });
  };
  folder_.Write("kelvane.ini", std::string(kHeader) + "Debug=0\n");
  std::string line;
  ASSERT_TRUE(child.Start({testsupport::ChildProgram(), "debug", "1"}) &&
              child.ReadLine(&line) && line == "ready");
  EXPECT_EQ("1", child.Ask("?"));  // forced, until the first change

  SaveByRename(std::string(kHeader) + "Debug=0\n");
  EXPECT_TRUE(shows("0")) << "rename not seen";
  folder_.Write("kelvane.ini", std::string(kHeader) + "Debug=3\n");
  EXPECT_TRUE(shows("1")) << "write in place not seen";
  // The value deleted: off, and written back as 0 keeping the rest.
  SaveByRename(std::string(kHeader) + "Other=1\n");
  EXPECT_TRUE(shows("0"));
  const std::string written = std::string(kHeader) + "Other=1\nDebug=0\n";
  EXPECT_TRUE(testsupport::WaitFor([&] { return Read() == written; }));
  EXPECT_EQ(0, child.Finish());
}

}  // namespace
