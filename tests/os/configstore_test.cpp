#include "common/os/configstore.h"

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "common/os/internal/configtext.h"
#include "common/os/osfile.h"

#include "support/tempfolder.h"

namespace {

// A temporary folder holding config files, with KELVANE_CONFIG pointed at
// one of them for the length of a test.
class ConfigStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tmp_.ok());
    const char* old = std::getenv(Kelvane::ConfigStore::kFileVariable);
    hadOld_ = old != nullptr;
    if (hadOld_) old_ = old;
  }
  void TearDown() override {
    if (hadOld_) {
      ::setenv(Kelvane::ConfigStore::kFileVariable, old_.c_str(), 1);
    } else {
      ::unsetenv(Kelvane::ConfigStore::kFileVariable);
    }
  }
  // Points KELVANE_CONFIG at `path`, written with `text` unless null.
  std::string Use(const char* text, const char* name = "k.ini") {
    std::string path = text ? tmp_.Write(name, text) : tmp_.File(name);
    ::setenv(Kelvane::ConfigStore::kFileVariable, path.c_str(), 1);
    return path;
  }

  testsupport::TempFolder tmp_;
  std::string old_;
  bool hadOld_ = false;
};

TEST(ConfigText, CanonicalText) {
  struct Row {
    std::string in;
    std::string out;
  } rows[] = {
      {"[A]\n;k=1\n# k=2\n\n   \n", "[A]\n"},  // comments and blanks
      // Values before any section and lines without a name and '=' go.
      {"top=1\n[A]\nnoequals\n=x\nk=v\n", "[A]\nk=v\n"},
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
  Use("[SOFTWARE\\Kelvane]\n"
      "LogRoot = /var/log/kelvane\n"
      "ServerPath=\"/opt/kel vane\"\n"
      "[Software\\Kelvane\\QuillonServer\\System]\n"
      "Debug=1\n");
  struct Row {
    const char* key;
    const char* name;
    int rc;
    const char* value;
  } rows[] = {
      {"SOFTWARE\\Kelvane", "LogRoot", 0, "/var/log/kelvane"},
      {"\\Software\\\\Kelvane\\", "SERVERPATH", 0, "/opt/kel vane"},
      {"SOFTWARE\\KELVANE\\quillonserver\\SYSTEM", "debug", 0, "1"},
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

TEST_F(ConfigStoreTest, MissingOrBrokenFileIsMissingKey) {
  Use(nullptr, "none.ini");
  EXPECT_STREQ("", Kelvane::GetServerPath().c_str());
  Kelvane::ConfigStore store;
  errno = 0;
  EXPECT_EQ(-1, store.Load());
  EXPECT_EQ(ENOENT, errno);
  // A folder where the file should be cannot be read either.
  ::setenv(Kelvane::ConfigStore::kFileVariable, tmp_.path().c_str(), 1);
  EXPECT_EQ(-1, store.Load());
  // An empty variable falls back to the default file.
  ::setenv(Kelvane::ConfigStore::kFileVariable, "", 1);
  EXPECT_STREQ(Kelvane::ConfigStore::kDefaultFile,
               Kelvane::ConfigStore::FilePath().c_str());
}

TEST_F(ConfigStoreTest, ReloadReplacesContent) {
  std::string a = Use("[K]\nx=1\n", "a.ini");
  std::string b = Use("[L]\ny=2\n", "b.ini");
  Kelvane::ConfigStore store;
  ASSERT_EQ(0, store.Load(a.c_str()));
  ACE_Configuration_Section_Key key;
  EXPECT_EQ(0, store.OpenKey("k", key));
  ASSERT_EQ(0, store.Load(b.c_str()));
  EXPECT_EQ(-1, store.OpenKey("k", key));
  ASSERT_EQ(0, store.OpenKey("L", key));
  ACE_CString v;
  EXPECT_EQ(0, Kelvane::ConfigStore::GetString(store.heap(), key, "Y", v));
  EXPECT_STREQ("2", v.c_str());
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
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.file);
    Use(r.file);
    EXPECT_STREQ(r.logRoot, Kelvane::GetLogRoot().c_str());
    EXPECT_STREQ(r.serverPath, Kelvane::GetServerPath().c_str());
  }
}

}  // namespace
