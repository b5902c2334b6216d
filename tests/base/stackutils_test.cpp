#include "common/base/stackutils.h"

#include <cstdio>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>
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
  for (unsigned char c : s) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

// The hash and bucket of every input, computed by a separate program
// written from the layout rules (a few lines of Python): one "hash bucket"
// line per input. Empty when python3 cannot be run.
std::vector<std::string> Reference(const std::vector<std::string>& inputs,
                                   const std::string& folder) {
  const std::string script =
      "import sys\n"
      "def pjw(b):\n"
      "    h = 0\n"
      "    for c in reversed(b):\n"
      "        c = c - 256 if c > 127 else c\n"
      "        h = ((h << 4) + c * 13) & 0xFFFFFFFF\n"
      "        g = h & 0xF0000000\n"
      "        if g:\n"
      "            h = h ^ (g >> 24) ^ g\n"
      "    return h\n"
      "for line in open(sys.argv[1]):\n"
      "    h = pjw(bytes.fromhex(line.strip()))\n"
      "    print(h, '%04d' % (h % 127))\n";
  std::string lines;
  for (const std::string& in : inputs) lines += Hex(in) + "\n";
  std::ofstream(folder + "/inputs") << lines;
  std::ofstream(folder + "/pjw.py") << script;
  const std::string command =
      "python3 " + folder + "/pjw.py " + folder + "/inputs";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::vector<std::string> out;
  if (pipe == nullptr) return out;
  char line[128];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string l(line);
    if (!l.empty() && l.back() == '\n') l.pop_back();
    out.push_back(l);
  }
  if (::pclose(pipe) != 0) out.clear();
  return out;
}

TEST(StackUtils, HashAndBucketMatchAnIndependentComputation) {
  std::vector<std::string> inputs = {
      "",
      "1",
      "1.2.3",
      "1.2.840.113619.2.55.3.604688119.969.1268071029.320",
      std::string("\x80", 1),
      "\xff\xfe\x7f",
      "caf\xe9 \xc3\xa9t\xc3\xa9",
      std::string(300, '9'),  // long enough to wrap many times
      std::string("a\0b", 3),
  };
  std::mt19937 rng(1234);
  for (int i = 0; i < 300; ++i) {
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
    const unsigned long h = StackUtils::pjwHash(text);
    EXPECT_LE(h, 0xFFFFFFFFul);
    EXPECT_EQ(expected[i],
              std::to_string(h) + " " + S(StackUtils::suidToStackFolder(text)));
  }
}

TEST(StackUtils, RandomUIDsLandInTheBuckets) {
  std::vector<ACE_CString> names;
  StackUtils::getStackHashFolders(names);
  std::set<std::string> allowed;
  for (const ACE_CString& n : names) allowed.insert(S(n));
  ASSERT_EQ(127u, allowed.size());
  EXPECT_EQ(1u, allowed.count("0000"));
  EXPECT_EQ(1u, allowed.count("0126"));
  EXPECT_EQ(0u, allowed.count("0127"));

  std::mt19937_64 rng(42);
  std::set<std::string> seen;
  for (int i = 0; i < 100000; ++i) {
    std::string uid = "1.2.840." + std::to_string(rng() % 100000) + "." +
                      std::to_string(rng()) + "." + std::to_string(i);
    const std::string bucket =
        S(StackUtils::suidToStackFolder(ACE_CString(uid.c_str())));
    ASSERT_EQ(1u, allowed.count(bucket)) << uid << " -> " << bucket;
    seen.insert(bucket);
  }
  // A hash that fed only part of the range would leave buckets empty.
  EXPECT_EQ(127u, seen.size());
}

TEST(StackUtils, HashFoldersAreAppended) {
  std::vector<ACE_CString> out = {"x", "y"};
  StackUtils::getStackHashFolders(out);
  ASSERT_EQ(129u, out.size());
  EXPECT_EQ("x", S(out[0]));
  for (size_t i = 2; i < out.size(); ++i) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%04zu", i - 2);
    ASSERT_EQ(expected, S(out[i]));
  }
}

TEST(StackUtils, ExtractStackPath) {
  const char* rows[][2] = {
      {"/E/Stack/0042/1.2.3", "/E/Stack"},
      {"\\E\\STACK\\0042", "\\E\\STACK"},
      {"/E/other/1.2", "/E/other/1.2"},
      {"/E/stack", "/E/stack"},             // nothing follows: unchanged
      {"/E/stack/", "/E/stack"},            // one character follows
      {"/a/stacks/b/stack/c", "/a/stack"},  // the first one counts
      {"stac", "stac"},
      {"", ""},
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

  // A foreign-separator root with and without its trailing separator.
  for (std::string given : {root, root + "/", root + "\\"}) {
    SCOPED_TRACE(given);
    EXPECT_EQ(root + "/" + bucket + "/" + S(uid),
              S(StackUtils::generateStudyPath(given.c_str(), uid)));
  }
  EXPECT_EQ(bucket + "/" + S(uid), S(StackUtils::generateStudyPath("", uid)));

  const ACE_CString study = StackUtils::generateStudyPath(root.c_str(), uid);
  ASSERT_TRUE(StackUtils::createStudyPathFolder(study));
  struct stat st;
  ASSERT_EQ(0, ::stat((root + "/" + bucket).c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_NE(0, ::stat(study.c_str(), &st));  // the study folder is not made
  EXPECT_TRUE(StackUtils::createStudyPathFolder(study));  // exists already
  EXPECT_EQ(S(study) + ".dts", S(StackUtils::getMetaFilePath(study)));

  // Under a regular file no folder can be made.
  const std::string file = folder.Write("plain", "x");
  EXPECT_FALSE(StackUtils::createStudyPathFolder(
      StackUtils::generateStudyPath(file.c_str(), uid)));
}

}  // namespace
