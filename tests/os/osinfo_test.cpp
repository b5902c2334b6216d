#include "common/os/osinfo.h"

#include <atomic>
#include <cstdio>
#include <string>
#include <sys/utsname.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/osinforules.h"

namespace {

std::string Shell(const char* command) {
  std::string out;
  if (FILE* p = ::popen(command, "r")) {
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    ::pclose(p);
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// Missing numbers are 0, numbers compare by value, a non-digit ends them;
// no leading number (or one beyond 32 bits) is no version.
TEST(OSInfoRules, CompareVersions) {
  const int kNone = OSInfoRules::kNotComparable;
  const struct {
    const char* actual;
    const char* wanted;
    int result;
  } rows[] = {
      {"6.1.0-18-amd64", "6.1.0.0", 0},
      {"6.10.3", "6.9", 1},
      {"6.01", "6.1", 0},
      {"12", "12.4", -1},
      {"12.4", "12", 0},
      {"5.4-rc2", "5.4.1", -1},
      {"6.1.", "6.1", 0},
      {nullptr, "6", kNone},
      {"6.1", "v6", kNone},
      {"99999999999", "1", kNone},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.actual ? r.actual : "(null)") + " vs " +
                 (r.wanted ? r.wanted : "(null)"));
    EXPECT_EQ(r.result, OSInfoRules::CompareVersions(r.actual, r.wanted));
  }
}

TEST(OsVersionInfo, Comparisons) {
  const SystemUtilCommon::OsVersionInfo v("6.1.0-18-amd64", "12");
  EXPECT_TRUE(v.IsKernelEqual("6.1") && v.IsKernelAtLeast("6.1") &&
              !v.IsKernelBelow("6.1"));
  EXPECT_TRUE(!v.IsKernelEqual("6.1.5") && !v.IsKernelAtLeast("6.1.5") &&
              v.IsKernelBelow("6.1.5"));
  EXPECT_TRUE(!v.IsDistributionEqual("11") && v.IsDistributionAtLeast("11") &&
              !v.IsDistributionBelow("11"));
  // A rolling distribution has no version: nothing matches it.
  const SystemUtilCommon::OsVersionInfo rolling("6.5.0", nullptr);
  EXPECT_FALSE(rolling.IsDistributionAtLeast("1") ||
               rolling.IsDistributionBelow("1"));
}

TEST(OSInfoRules, OsReleaseValue) {
  const std::string text =
      "NAME='Debian \\GNU'\n"
      "VERSION=\"12 (bookworm)\"  \n"
      "ID=debian\n"
      "HOME_URL=\"a \\\"quoted\\\" word\"\n"
      "#ID=commented\n"
      "ID_LIKE=\n"
      "BUILD_ID=one\n"
      "BUILD_ID=two\n";
  const struct {
    const char* key;
    const char* value;
  } rows[] = {
      {"NAME", "Debian \\GNU"},  // single quotes keep backslashes
      {"VERSION", "12 (bookworm)"},
      {"ID", "debian"},
      {"HOME_URL", "a \"quoted\" word"},
      {"ID_LIKE", ""},
      {"BUILD_ID", "two"},
      {"VARIANT", ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.key);
    EXPECT_EQ(r.value, OSInfoRules::OsReleaseValue(text, r.key));
  }
}

TEST(OSInfo, RecordOfThisMachine) {
  const OSVERSIONRECORD r = OSInfo::GetOSInfoEx();
  struct utsname u;
  ASSERT_EQ(0, ::uname(&u));
  EXPECT_STREQ(u.release, r.release.c_str());
  EXPECT_STREQ(u.sysname, r.sysName.c_str());
  EXPECT_STREQ(u.machine, r.machine.c_str());
  unsigned major = 0, minor = 0, patch = 0;
  std::sscanf(u.release, "%u.%u.%u", &major, &minor, &patch);
  EXPECT_EQ(major, r.dwMajorVersion);
  EXPECT_EQ(minor, r.dwMinorVersion);
  EXPECT_EQ(patch, r.dwBuildNumber);
  const char* file = ::access("/etc/os-release", R_OK) == 0
                         ? "/etc/os-release"
                         : "/usr/lib/os-release";
  const std::string read = std::string("sh -c '. ") + file +
                           " && printf \"%s|%s\" \"$ID\" \"$VERSION_ID\"'";
  EXPECT_EQ(Shell(read.c_str()), std::string(r.distributionId.c_str()) + "|" +
                                     r.distributionVersion.c_str());

  EXPECT_TRUE(SystemUtilCommon::OsVersionInfo().IsKernelEqual(u.release));
}

// The shared record is refreshed on every call: readers get whole copies.
TEST(OSInfo, ManyThreadsReadTheRecordAtOnce) {
  struct utsname u;
  ASSERT_EQ(0, ::uname(&u));
  const std::string release = u.release;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        const OSVERSIONRECORD r = OSInfo::GetOSInfoEx();
        if (release != r.release.c_str() || r.dwMajorVersion == 0) ++wrong;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, wrong.load());
}

}  // namespace
