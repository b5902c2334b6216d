#include "common/os/configstore.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "common/os/internal/configtext.h"
#include "common/os/osfile.h"

#include "support/tempfolder.h"

namespace {

using Kelvane::ConfigStore;

// Points the configuration variable at files of a temporary folder.
class ConfigStoreTest : public ::testing::Test {
 protected:
  void TearDown() override { ::unsetenv(ConfigStore::kFileVariable); }
  // Points the variable at `name`, written with `text` unless null.
  std::string Use(const char* text, const char* name = "k.ini") {
    std::string path = text ? tmp_.Write(name, text) : tmp_.File(name);
    ::setenv(ConfigStore::kFileVariable, path.c_str(), 1);
    return path;
  }
  testsupport::TempFolder tmp_;
};

TEST(ConfigText, CanonicalText) {
  struct Row {
    std::string in;
    std::string out;
  } rows[] = {
      // Comments, blanks, values before any section, lines without a name
      // and '=' go.
      {"top=1\n[A]\n;k=1\n# k=2\n\n   \nnoequals\n=x\nk=v\n", "[A]\nk=v\n"},
      // The first spelling of each level wins, level by level.
      {"[SOFTWARE\\Kelvane]\nA=1\n[Software\\KELVANE\\Sub]\nB=2\n",
       "[SOFTWARE\\Kelvane]\nA=1\n[SOFTWARE\\Kelvane\\Sub]\nB=2\n"},
      // Empty levels and blanks around levels are dropped; a header
      // without levels leaves the following values out.
      {"[ \\x\\\\ y ]\nk=1\n[]\nlost=1\n[\\]\nlost=2\n", "[x\\y]\nk=1\n"},
      {"[A]\nk=" + std::string(5000, 'x') + "\nz=1\n", "[A]\nz=1\n"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_EQ(r.out, Kelvane::internal::CanonicalIniText(r.in));
  }
}

TEST_F(ConfigStoreTest, KeysAndValuesMatchWithoutCase) {
  Use("[SOFTWARE\\Kelvane]\nLogRoot = /var/log/kelvane\n"
      "ServerPath=\"/opt/kel vane\"\n");
  struct Row {
    const char* key;
    const char* name;
    int rc;
    const char* value;
  } rows[] = {
      {"\\Software\\\\KELVANE\\", "SERVERPATH", 0, "/opt/kel vane"},
      {"SOFTWARE\\Kelvane", "LogRoot", 0, "/var/log/kelvane"},
      {"SOFTWARE\\Kelvane", "Debug", 1, "unchanged"},
      {"Kelvane", "LogRoot", -1, "unchanged"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.key) + " " + r.name);
    ACE_CString value("unchanged");
    EXPECT_EQ(r.rc, Kelvane::ReadConfigString(r.key, r.name, value));
    EXPECT_STREQ(r.value, value.c_str());
  }
}

TEST_F(ConfigStoreTest, MissingFileAndReload) {
  Use(nullptr, "none.ini");
  ConfigStore store;
  errno = 0;
  EXPECT_EQ(-1, store.Load());
  EXPECT_EQ(ENOENT, errno);
  // A reload replaces the content.
  std::string a = Use("[K]\nx=1\n", "a.ini");
  std::string b = Use("[L]\ny=2\n", "b.ini");
  ASSERT_EQ(0, store.Load(a.c_str()));
  ACE_Configuration_Section_Key key;
  EXPECT_EQ(0, store.OpenKey("k", key));
  ASSERT_EQ(0, store.Load(b.c_str()));
  EXPECT_EQ(-1, store.OpenKey("k", key));
  EXPECT_EQ(0, store.OpenKey("L", key));
}

TEST_F(ConfigStoreTest, LogRootAndServerPath) {
  struct Row {
    const char* file;
    const char* logRoot;
    const char* serverPath;
  } rows[] = {
      {"[SOFTWARE\\Kelvane]\nLogRoot=/var/log/k\nServerPath=/opt/k\n",
       "/var/log/k", "/opt/k/"},
      {"[SOFTWARE\\Kelvane]\n", "", "/"},
      {"[SOFTWARE\\Other]\nLogRoot=/x\nServerPath=/y\n", "", ""},
      {nullptr, "", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.file ? r.file : "no file");
    Use(r.file, r.file ? "k.ini" : "none.ini");
    EXPECT_STREQ(r.logRoot, Kelvane::GetLogRoot().c_str());
    EXPECT_STREQ(r.serverPath, Kelvane::GetServerPath().c_str());
  }
}

}  // namespace
