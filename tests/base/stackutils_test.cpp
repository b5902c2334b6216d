#include "common/base/stackutils.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/tempfolder.h"

namespace {

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

std::string Hex(const std::string& s) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) out += {kDigits[c >> 4], kDigits[c & 15]};
  return out;
}

// "hash bucket" per input, worked out by a few lines of Python written from
// the storage layout rules; empty when python3 cannot be run.
std::vector<std::string> Reference(const std::vector<std::string>& inputs,
                                   const std::string& folder) {
  std::ofstream(folder + "/pjw.py")
      << "import sys\n"
         "for line in open(sys.argv[1]):\n"
         "    h = 0\n"
         "    for c in reversed(bytes.fromhex(line.strip())):\n"
         "        h = ((h << 4) + (c - 256 if c > 127 else c) * 13) & "
         "0xFFFFFFFF\n"
         "        g = h & 0xF0000000\n"
         "        h = h ^ (g >> 24) ^ g if g else h\n"
         "    print(h, '%04d' % (h % 127))\n";
  std::ofstream lines(folder + "/inputs");
  for (const std::string& in : inputs) lines << Hex(in) << "\n";
  lines.close();
  std::vector<std::string> out;
  FILE* pipe = ::popen(
      ("python3 " + folder + "/pjw.py " + folder + "/inputs").c_str(), "r");
  if (pipe == nullptr) return out;
  for (char line[128]; std::fgets(line, sizeof line, pipe) != nullptr;) {
    out.emplace_back(line, std::strcspn(line, "\n"));
  }
  if (::pclose(pipe) != 0) out.clear();
  return out;
}

TEST(StackUtils, HashAndBucketMatchAnIndependentComputation) {
  // Random bytes cover bytes above 127 (signed); 300 nines wrap often.
  std::vector<std::string> inputs = {"", std::string(300, '9'),
                                     std::string("a\0b", 3)};
  std::mt19937 rng(1234);
  for (int i = 0; i < 100; ++i) {
    std::string s(1 + rng() % 70, ' ');
    for (char& c : s) c = static_cast<char>(rng() & 0xFF);
    inputs.push_back(s);
  }
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  const std::vector<std::string> expected = Reference(inputs, folder.path());
  if (expected.empty()) GTEST_SKIP() << "python3 cannot be run here";
  ASSERT_EQ(inputs.size(), expected.size());
  for (size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(Hex(inputs[i]));
    const ACE_CString text(inputs[i].data(), inputs[i].size());
    EXPECT_EQ(expected[i], std::to_string(StackUtils::pjwHash(text)) + " " +
                               S(StackUtils::suidToStackFolder(text)));
  }
}

TEST(StackUtils, HashFoldersAreAppended) {
  std::vector<ACE_CString> out = {"x"};
  StackUtils::getStackHashFolders(out);
  std::string all;
  for (const ACE_CString& name : out) all += S(name) + " ";
  EXPECT_EQ(2u + 127 * 5, all.size());
  EXPECT_EQ(0u, all.find("x 0000 0001 0002 "));
  EXPECT_EQ(all.size() - 10, all.find("0125 0126 "));
}

TEST(StackUtils, ExtractStackPath) {
  const char* rows[][2] = {
      {"\\E\\STACK\\0042", "\\E\\STACK"},
      {"/E/stack", "/E/stack"},             // nothing follows: unchanged
      {"/E/stack/", "/E/stack"},            // one character follows
      {"/a/stacks/b/stack/c", "/a/stack"},  // the first one counts
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0]);
    EXPECT_EQ(r[1], S(StackUtils::extractStackPath(r[0])));
  }
}

TEST(StackUtils, StudyPathIsCreatedForReal) {
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  const ACE_CString uid("1.2.840.10008.5.1.4.1.1.2.99");
  const std::string bucket = S(StackUtils::suidToStackFolder(uid));
  const std::string root = folder.path() + "/archive";
  const std::pair<std::string, std::string> roots[] = {
      {root + "\\", root + "/"}, {"", ""}};
  for (const auto& r : roots) {
    SCOPED_TRACE(r.first);
    EXPECT_EQ(r.second + bucket + "/" + S(uid),
              S(StackUtils::generateStudyPath(r.first.c_str(), uid)));
  }
  const ACE_CString study = StackUtils::generateStudyPath(root.c_str(), uid);
  ASSERT_TRUE(StackUtils::createStudyPathFolder(study));
  EXPECT_TRUE(std::filesystem::is_directory(root + "/" + bucket));
  EXPECT_FALSE(std::filesystem::exists(study.c_str()));   // only its parent
  EXPECT_TRUE(StackUtils::createStudyPathFolder(study));  // exists already
  EXPECT_EQ(S(study) + ".dts", S(StackUtils::getMetaFilePath(study)));
  const std::string file = folder.Write("plain", "x");  // no folder under it
  EXPECT_FALSE(StackUtils::createStudyPathFolder(
      StackUtils::generateStudyPath(file.c_str(), uid)));
}

}  // namespace
