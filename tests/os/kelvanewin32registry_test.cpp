#include "common/os/kelvanewin32registry.h"

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/os/configstore.h"

#include "support/runas.h"
#include "support/tempfolder.h"

namespace {

using testsupport::TempFolder;

const char kIni[] =
    "[SOFTWARE\\Kelvane]\n"
    "LogRoot = /var/log/kelvane\n"
    "[Software\\Kelvane\\QuillonServer\\System]\n"
    "Debug = 1\n";

std::string Value(KelvaneWin32Registry& r,
                  const ACE_Configuration_Section_Key& key, const char* name) {
  ACE_TString v;
  if (r.get_string_value(key, name, v) != 0) return "(none)";
  return std::string(v.c_str(), v.length());
}

// A reader without write access opens a section several levels down.
TEST(KelvaneWin32Registry, ReaderWithReadAccessOnly) {
  TempFolder folder;
  ASSERT_TRUE(folder.ok());
  const std::string file = folder.Write("kelvane.ini", kIni);
  ASSERT_EQ(0, ::chmod(file.c_str(), 0644));
  std::string answer;
  ASSERT_TRUE(testsupport::RunUnprivileged(
      [&]() -> std::string {
        if (::access(file.c_str(), W_OK) == 0) return "file is writable";
        KelvaneWin32Registry registry(file.c_str());
        ACE_Configuration_Section_Key key;
        if (registry.open_section_readonly(
                registry.root_section(),
                "software\\KELVANE\\QuillonServer\\System", key) != 0) {
          return "open failed";
        }
        return Value(registry, key, "Debug");
      },
      &answer))
      << answer;
  EXPECT_EQ("1", answer);
}

// Case-blind; bad or missing names leave `result` alone and create nothing,
// in memory or on disk.
TEST(KelvaneWin32Registry, OpensLevelByLevelAndCreatesNothing) {
  TempFolder folder;
  const std::string file = folder.Write("kelvane.ini", kIni);
  {
    KelvaneWin32Registry registry(file.c_str());
    ACE_Configuration_Section_Key kelvane, system;
    ASSERT_EQ(0, registry.open_section_readonly(registry.root_section(),
                                                "SOFTWARE\\Kelvane", kelvane));
    EXPECT_EQ("/var/log/kelvane", Value(registry, kelvane, "LogRoot"));
    ASSERT_EQ(0, registry.open_section_readonly(
                     kelvane, "QuillonServer\\System", system));
    EXPECT_EQ("1", Value(registry, system, "Debug"));
    const struct {
      const char* name;
      int rc;
    } rows[] = {
        {"quillonserver\\system", 0}, {"", -1},
        {"\\QuillonServer", -1},      {"QuillonServer\\Missing", -1},
        {"NewProduct\\Settings", -1}, {nullptr, -1},
    };
    for (const auto& r : rows) {
      SCOPED_TRACE(r.name ? r.name : "(null)");
      ACE_Configuration_Section_Key out = kelvane;
      EXPECT_EQ(r.rc, registry.open_section_readonly(kelvane, r.name, out));
      if (r.rc != 0) {
        EXPECT_EQ("/var/log/kelvane", Value(registry, out, "LogRoot"));
      }
    }
    ACE_TString name;
    int sections = 0;
    while (registry.enumerate_sections(kelvane, sections, name) == 0) {
      EXPECT_STREQ("QuillonServer", name.c_str());
      ++sections;
    }
    EXPECT_EQ(1, sections);
  }
  EXPECT_EQ(std::string(kIni), TempFolder::Read(file));
}

TEST(KelvaneWin32Registry, MissingFileIsAHiveWithoutKeys) {
  TempFolder folder;
  const std::string file = folder.File("absent.ini");
  const char* old = std::getenv(Kelvane::ConfigStore::kFileVariable);
  const std::string saved = old ? old : "";
  ::setenv(Kelvane::ConfigStore::kFileVariable, file.c_str(), 1);
  KelvaneWin32Registry registry;  // the file the variable names
  if (old) {
    ::setenv(Kelvane::ConfigStore::kFileVariable, saved.c_str(), 1);
  } else {
    ::unsetenv(Kelvane::ConfigStore::kFileVariable);
  }
  ACE_Configuration_Section_Key key;
  EXPECT_EQ(-1, registry.open_section_readonly(registry.root_section(),
                                               "SOFTWARE", key));
  EXPECT_NE(0, ::access(file.c_str(), F_OK)) << "the file is never created";
}

}  // namespace
