// comctl, run as a program, against the library's own answers.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/debugtrigger.h"
#include "common/base/dtsstudyurl.h"
#include "common/base/stackutils.h"
#include "common/base/tagmapper.h"
#include "common/os/configstore.h"

#include "support/tempfolder.h"

namespace {

using testsupport::TempFolder;

const std::string kComctl = COM_BINARY_DIR "/tools/comctl";

struct Result {
  int code = -1;
  std::string out, err;
};

// Runs comctl with `args`, `env` holding extra "NAME=value" entries.
Result RunComctl(const std::vector<std::string>& args,
                 const std::vector<std::string>& env = {}) {
  TempFolder scratch;
  std::string command;
  for (auto& e : env) command += e + " ";
  command += "'" + kComctl + "'";
  for (auto& a : args) command += " '" + a + "'";
  command += " >'" + scratch.File("out") + "' 2>'" + scratch.File("err") + "'";
  int const status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
          TempFolder::Read(scratch.File("out")),
          TempFolder::Read(scratch.File("err"))};
}

// The value of "name": ... in comctl's one-line JSON.
std::string JsonField(const std::string& json, const std::string& name) {
  size_t at = json.find("\"" + name + "\": ");
  if (at == std::string::npos) return "<missing>";
  at += name.size() + 4;
  if (json[at] != '"')
    return json.substr(at, json.find_first_of(",}", at) - at);
  std::string value;
  for (size_t i = at + 1; i < json.size() && json[i] != '"'; ++i) {
    if (json[i] == '\\') ++i;
    value += json[i];
  }
  return value;
}

// PJW hash over the bytes last to first, each weighted by 13 as a signed
// byte, in 32 bits.
unsigned long ReferenceBucket(const std::string& uid) {
  unsigned long long h = 0;
  for (auto it = uid.rbegin(); it != uid.rend(); ++it) {
    long long weighted = 13LL * static_cast<signed char>(*it);
    h = ((h << 4) + static_cast<unsigned long long>(weighted)) & 0xFFFFFFFFull;
    unsigned long long top = h & 0xF0000000ull;
    h = (h ^ (top >> 24)) & ~top;
  }
  return static_cast<unsigned long>(h % 127);
}

TEST(Comctl, StackPathMatchesLibraryAndReferenceHash) {
  for (const char* root : {"/data", "/var/lib/archive/"}) {
    for (const std::string uid :
         {"9", "2.25.329800735698586629295641978511506172918",
          "1.3.6.1.4.1.5962.99.1.2786.334.1415107432.0"}) {
      SCOPED_TRACE(std::string(root) + " " + uid);
      Result plain = RunComctl({"stack-path", root, uid});
      ASSERT_EQ(plain.code, 0) << plain.err;
      ACE_CString expected = StackUtils::generateStudyPath(root, uid.c_str());
      char bucket[8];
      std::snprintf(bucket, sizeof bucket, "%04lu", ReferenceBucket(uid));
      std::string base = root;
      if (base.back() != '/') base += '/';
      EXPECT_EQ(plain.out, base + bucket + "/" + uid + "\n");

      Result json = RunComctl({"--json", "stack-path", root, uid});
      ASSERT_EQ(json.code, 0);
      EXPECT_EQ(JsonField(json.out, "bucket"), bucket);
      EXPECT_EQ(JsonField(json.out, "dts"),
                std::string(expected.c_str()) + ".dts");
    }
  }
}

TEST(Comctl, UrlBuiltParsesBackAndParsedMatchesLibrary) {
  Result built = RunComctl({"--json", "url", "--path", "/vol1/0042/1.2.3",
                            "--host", "Node7", "--suid", "1.2.3", "--type",
                            "512", "--pid", "P42", "--etag", "ABC"});
  ASSERT_EQ(built.code, 0) << built.err;
  std::string text = JsonField(built.out, "url");
  DTSStudyURL url{ACE_CString(text.c_str())};
  EXPECT_EQ("node7|/vol1/0042/1.2.3|1.2.3|P42|512|abc",
            std::string(url.host().c_str()) + "|" + url.path().c_str() + "|" +
                url.suid().c_str() + "|" + url.patientId().c_str() + "|" +
                std::to_string(url.type()) + "|" + url.ETAG().c_str());
  EXPECT_EQ(JsonField(built.out, "typeName"), "UDM_STORAGE_SERVER");

  const std::string given =
      "DTS://Node7?p=/data/stack/0001/1.2&t=8&n=77&gs=1&suid=1.2&x=y";
  Result parsed = RunComctl({"url", given});
  ASSERT_EQ(parsed.code, 0) << parsed.err;
  DTSStudyURL library{ACE_CString(given.c_str())};
  for (const std::string& want :
       {"path: " + std::string(library.path().c_str()),
        std::string("equivalence: 77"), std::string("goldOverride: yes"),
        "url: " + given}) {
    EXPECT_NE(parsed.out.find(want + "\n"), std::string::npos) << parsed.out;
  }
}

TEST(Comctl, GoldAndMergeMatchLibrary) {
  const std::vector<std::string> urls = {
      "dts://a?p=/x&t=4&n=1", "dts://b?p=/y&t=8&n=2", "dts://c?p=/z&t=2&n=1"};
  std::vector<DTSStudyURL> locations;
  for (auto& u : urls) locations.emplace_back(ACE_CString(u.c_str()));
  DTSStudyURL gold;
  ASSERT_TRUE(DTSStudyURL::selectGoldLocation(gold, locations));
  Result r = RunComctl({"--json", "gold", urls[0], urls[1], urls[2]});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(JsonField(r.out, "gold"), gold.url().c_str());
  EXPECT_EQ(JsonField(r.out, "merge"), "true");

  Result same =
      RunComctl({"gold", "dts://a?p=/x&t=4&n=5", "dts://b?p=/y&t=8&n=5"});
  ASSERT_EQ(same.code, 0);
  EXPECT_NE(same.out.find("merge: no\n"), std::string::npos) << same.out;
}

TEST(Comctl, TagLookUpsMatchDictionary) {
  TagMapper* dict = TagMapper::Instance();
  ASSERT_NE(dict, nullptr);
  for (const char* keyword : {"PatientName", "PixelData"}) {
    SCOPED_TRACE(keyword);
    unsigned long tag = 0;
    ASSERT_TRUE(dict->FindTagByKeyword(keyword, tag));
    char text[32];
    std::snprintf(text, sizeof text, "(%04lX,%04lX)", tag >> 16, tag & 0xFFFF);
    Result byKeyword = RunComctl({"--json", "tag", keyword});
    ASSERT_EQ(byKeyword.code, 0) << byKeyword.err;
    EXPECT_EQ(JsonField(byKeyword.out, "tag"), text);
    EXPECT_EQ(JsonField(byKeyword.out, "description"),
              dict->FindDescription(static_cast<unsigned>(tag)));
    char bare[32];
    std::snprintf(bare, sizeof bare, "%08lx", tag);
    Result byTag = RunComctl({"--json", "tag", bare});
    ASSERT_EQ(byTag.code, 0);
    EXPECT_EQ(JsonField(byTag.out, "keyword"), keyword);
  }
}

TEST(Comctl, BadInputExitsNonZeroWithMessage) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"no-such-command"},
      {"stack-path", "/data", "1..2"},
      {"url", "dts://host"},
      {"url", "--path", "/x&t=9"},
      {"gold", "dts://a"},
      {"uid", "--root", "1.02"},
      {"tag", "NoSuchKeyword"},
      {"debug", "maybe"},
      {"sysinfo", "--path", "/no/such/folder"},
  };
  for (const auto& args : cases) {
    std::string joined;
    for (auto& a : args) joined += a + " ";
    SCOPED_TRACE(joined);
    Result r = RunComctl(args);
    EXPECT_EQ(r.code, 2);
    EXPECT_FALSE(r.err.empty());
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  for (const char* command : {"stack-path", "url", "gold", "uid", "tag", "stop",
                              "debug", "sysinfo"}) {
    Result help = RunComctl({command, "--help"});
    EXPECT_EQ(help.code, 0) << command;
    EXPECT_EQ(help.out.find(std::string("usage: comctl [--json] ") + command),
              0u)
        << help.out;
  }
}

TEST(Comctl, DebugWritesTheValueDebugTriggerReads) {
  TempFolder folder;
  std::string file = folder.Write("kelvane.ini", "[Other]\nKeep = 1\n");
  for (const char* state : {"on", "off"}) {
    Result r = RunComctl({"debug", state}, {"KELVANE_CONFIG='" + file + "'"});
    ASSERT_EQ(r.code, 0) << r.err;
    Kelvane::ConfigStore store;
    ASSERT_EQ(store.Load(file.c_str()), 0);
    ACE_Configuration_Section_Key key;
    ASSERT_EQ(store.OpenKey(DebugTrigger::kSection, key), 0);
    ACE_CString value;
    ASSERT_EQ(Kelvane::ConfigStore::GetString(store.heap(), key,
                                              DebugTrigger::kValue, value),
              0);
    EXPECT_STREQ(value.c_str(), std::string(state) == "on" ? "1" : "0");
  }
  EXPECT_NE(TempFolder::Read(file).find("Keep = 1"), std::string::npos);
}

TEST(Comctl, SysinfoDiskFiguresMatchStatvfs) {
  TempFolder folder;
  Result r = RunComctl({"--json", "sysinfo", "--path", folder.path()});
  ASSERT_EQ(r.code, 0) << r.err;
  struct statvfs fs;
  ASSERT_EQ(::statvfs(folder.path().c_str(), &fs), 0);
  EXPECT_EQ(JsonField(r.out, "diskTotalBytes"),
            std::to_string(static_cast<unsigned long long>(fs.f_blocks) *
                           fs.f_frsize));
  EXPECT_NE(std::stoull(JsonField(r.out, "memoryTotalKB")), 0u);
}

TEST(Comctl, UidIsUnderTheRootAndFresh) {
  Result a = RunComctl({"uid", "--root", "1.2.3"});
  Result b = RunComctl({"--json", "uid", "--root", "1.2.3"});
  ASSERT_EQ(a.code + b.code, 0) << a.err << b.err;
  EXPECT_EQ(a.out.rfind("1.2.3.", 0), 0u) << a.out;
  EXPECT_NE(a.out, JsonField(b.out, "uid") + "\n");
}

}  // namespace
