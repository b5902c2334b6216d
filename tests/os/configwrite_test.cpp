#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "common/os/configstore.h"
#include "common/os/internal/configtext.h"

#include "support/childprocess.h"
#include "support/tempfolder.h"

namespace {

using Kelvane::ConfigStore;
using Kelvane::internal::SetIniValue;

TEST(SetIniValue, EditsOneValueAndKeepsEveryOtherByte) {
  const char* S = "Software\\Kelvane\\QuillonServer\\System";
  struct Row {
    const char* text;
    const char* name;
    const char* want;
  } rows[] = {
      // Replaced where it stands, name spelling kept; levels and separators
      // match without case.
      {"[a]\nx=1\n[SOFTWARE/kelvane\\QuillonServer\\SYSTEM]\n; c\n"
       " debug = 1 \nz=2\n",
       "Debug",
       "[a]\nx=1\n[SOFTWARE/kelvane\\QuillonServer\\SYSTEM]\n; c\n"
       "debug=0\nz=2\n"},
      // Added after the last value; a commented-out value does not count.
      {"[Software\\Kelvane\\QuillonServer\\System]\n;Debug=1\nA=1\n\n[b]\n",
       "Debug",
       "[Software\\Kelvane\\QuillonServer\\System]\n;Debug=1\nA=1\nDebug=0\n\n"
       "[b]\n"},
      // A longer section name sharing the prefix is another section; the
      // new one comes after a blank line.
      {"[Software\\Kelvane\\QuillonServer\\System\\Sub]\nDebug=1", "Debug",
       "[Software\\Kelvane\\QuillonServer\\System\\Sub]\nDebug=1\n\n"
       "[Software\\Kelvane\\QuillonServer\\System]\nDebug=0\n"},
      {"", "", "[Software\\Kelvane\\QuillonServer\\System]\n"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    EXPECT_EQ(r.want, SetIniValue(r.text, S, r.name, "0"));
  }
}

TEST(ConfigStoreWrite, ReplacesTheFileAtomicallyKeepingItsMode) {
  testsupport::TempFolder folder;
  std::string file = folder.Write("k.ini", "[x]\na=1\n");
  ASSERT_EQ(0, ::chmod(file.c_str(), 0640));
  struct stat before, after;
  ASSERT_EQ(0, ::stat(file.c_str(), &before));
  ASSERT_EQ(0, ConfigStore::WriteString(file.c_str(), "x", "b", "2"));
  ASSERT_EQ(0, ::stat(file.c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);  // a new file renamed over it
  EXPECT_EQ(0640u, after.st_mode & 07777);
  EXPECT_EQ("[x]\na=1\nb=2\n", testsupport::TempFolder::Read(file));
  // A missing folder fails with errno set.
  errno = 0;
  EXPECT_EQ(-1, ConfigStore::WriteString(folder.File("no/k.ini").c_str(), "x",
                                         "b", "2"));
  EXPECT_EQ(ENOENT, errno);
}

// Two processes write 150 values each at once; none is lost.
TEST(ConfigStoreWrite, ConcurrentWritersLoseNothing) {
  testsupport::TempFolder folder;
  std::string file = folder.Write("k.ini", "[Keep]\nMe=1\n");
  const int n = 150;
  testsupport::ChildProcess writers[2];
  for (const char* prefix : {"a", "b"})
    ASSERT_TRUE(
        writers[*prefix - 'a'].Start({testsupport::ChildProgram(), "cfgwrite",
                                      file, prefix, std::to_string(n)}));
  for (auto& w : writers) EXPECT_EQ(0, w.Finish());
  ConfigStore store;
  ASSERT_EQ(0, store.Load(file.c_str()));
  ACE_Configuration_Section_Key key;
  ASSERT_EQ(0, store.OpenKey("Software\\Kelvane\\Test", key));
  int found = 0;
  for (int i = 0; i < 2 * n; ++i) {
    ACE_CString value;
    std::string name = "ab"[i / n] + std::to_string(i % n);
    found +=
        ConfigStore::GetString(store.heap(), key, name.c_str(), value) == 0 &&
        value == std::to_string(i % n).c_str();
  }
  EXPECT_EQ(2 * n, found);
  // No temporary file left in the folder.
  EXPECT_EQ(
      1, std::distance(std::filesystem::directory_iterator(folder.path()), {}));
}

}  // namespace
