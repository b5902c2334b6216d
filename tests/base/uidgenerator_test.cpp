#include "common/base/uidgenerator.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <openssl/sha.h>
#include <random>
#include <sched.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/base/internal/sha512.h"
#include "common/base/internal/uidgenerator_internal.h"

#include "support/logcapture.h"
#include "support/pyoracle.h"

namespace {

using uidgenerator_internal::Adapter;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

std::string Pid() { return std::to_string(::getpid()); }

uint32_t CounterOf(const std::string& uid) {
  return static_cast<uint32_t>(std::stoul(uid.substr(uid.rfind('.') + 1)));
}

class UIDGeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override { uidgenerator_internal::ResetForTest(0); }
  void TearDown() override { uidgenerator_internal::ResetForTest(0); }
};

TEST_F(UIDGeneratorTest, AlternateLayoutTimeAndConsecutiveCounters) {
  ACE_CString out("untouched");
  EXPECT_THROW(UIDGenerator::GenerateUID(out), std::exception);
  EXPECT_EQ("untouched", S(out));

  ASSERT_TRUE(UIDGenerator::InitializeAlternate(12, 345, "1.2.3"));
  const std::string prefix = "1.2.3.2.12.345." + Pid() + ".";
  const long long before = std::time(nullptr);
  UIDGenerator::GenerateUID(out);
  const std::string uids[] = {S(out), S(UIDGenerator::GenerateUID())};
  const long long after = std::time(nullptr);
  for (int i = 0; i < 2; ++i) {
    long long t = 0;
    unsigned counter = 0;
    char end = 0;
    ASSERT_EQ(0u, uids[i].find(prefix)) << uids[i];
    ASSERT_EQ(2, std::sscanf(uids[i].c_str() + prefix.size(), "%lld.%u%c", &t,
                             &counter, &end));
    EXPECT_TRUE(before <= t && t <= after) << t;
    EXPECT_EQ(i + 1u, counter);
  }
  // Initialising again by MAC is ignored; the alternate form replaces.
  EXPECT_TRUE(UIDGenerator::InitializeMAC("9.9"));
  EXPECT_EQ(0u, S(UIDGenerator::GenerateUID()).find(prefix));
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(5, 6, "3.4"));
  EXPECT_EQ(0u, S(UIDGenerator::GenerateUID()).find("3.4.2.5.6." + Pid()));
}

TEST_F(UIDGeneratorTest, AlternateNumbersArePrintedAsSigned32Bit) {
  struct Row {
    unsigned long first, second;
    const char* root;
    std::string prefix;
  } rows[] = {
      {2147483647, 2147483648UL, "1.2", "1.2.2.2147483647.-2147483648."},
      {4294967295UL, 4294967296UL + 7, "1.2", "1.2.2.-1.7."},
      {1, 2, "", ".2.1.2."},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.prefix);
    ASSERT_TRUE(UIDGenerator::InitializeAlternate(r.first, r.second, r.root));
    const std::string uid = S(UIDGenerator::GenerateUID());
    EXPECT_EQ(r.prefix + Pid() + ".",
              uid.substr(0, uid.rfind('.', uid.rfind('.') - 1) + 1));
  }
}

TEST_F(UIDGeneratorTest, CounterSkipsZeroOnWrap) {
  uidgenerator_internal::ResetForTest(0xFFFFFFFEu);
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(1, 2, "1.2"));
  std::string got;
  for (int i = 0; i < 3; ++i)
    got += std::to_string(CounterOf(S(UIDGenerator::GenerateUID()))) + " ";
  EXPECT_EQ("4294967295 1 2 ", got);
}

TEST_F(UIDGeneratorTest, LengthLimitIsSixtyFourCharacters) {
  // "<root>.2.1.2.<pid>.<seconds>.9" of exactly 64, then 65 characters.
  const size_t fixed = std::string(".2.1.2.").size() + Pid().size() + 1 +
                       std::to_string(std::time(nullptr)).size() + 2;
  uidgenerator_internal::ResetForTest(8);
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(
      1, 2, std::string(64 - fixed, '7').c_str()));
  EXPECT_EQ(64u, UIDGenerator::GenerateUID().length());

  const std::string root(65 - fixed, '7');
  uidgenerator_internal::ResetForTest(8);
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(1, 2, root.c_str()));
  testsupport::LogCapture log;
  ACE_CString out("kept");
  try {
    UIDGenerator::GenerateUID(out);
    ADD_FAILURE() << "no exception";
  } catch (const UIDGeneratorException& e) {
    EXPECT_STREQ("Unable to create UID that is less than 64 characters",
                 e.what());
  }
  EXPECT_EQ("kept", S(out));
  ASSERT_EQ(1u, log.records().size());
  EXPECT_EQ(LM_ERROR, log.records()[0].priority);
  EXPECT_NE(std::string::npos,
            log.records()[0].text.find(" - " + root.substr(0, 20)));
}

TEST(UIDGeneratorRule, PickHardwareNumbers) {
  typedef std::vector<unsigned char> Mac;
  const Mac lo{0, 0, 0, 0, 0, 0}, hi{2, 0, 0, 0, 0, 0}, low{0, 0, 0, 0, 0, 1};
  const Mac eth{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
  struct Row {
    const char* what;
    std::vector<Mac> macs;
    bool ok;
    uint32_t first, second;
  } rows[] = {
      {"loopback first", {lo, eth}, true, 6699, 3951966},
      {"not six bytes", {Mac{1, 2, 3, 4, 5, 6, 7}, Mac{}}, false, 0, 0},
      {"zero lower half stops the walk", {hi, eth}, false, 0x020000, 0},
      {"zero upper half stops the walk", {low, eth}, false, 0, 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<Adapter> adapters;
    for (const Mac& m : r.macs) adapters.push_back(Adapter{"x", m});
    uint32_t first = 99, second = 99;
    EXPECT_EQ(r.ok, uidgenerator_internal::PickHardwareNumbers(adapters, &first,
                                                               &second));
    EXPECT_EQ(std::make_pair(r.first, r.second), std::make_pair(first, second));
  }
}

std::string ReadLine(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

TEST_F(UIDGeneratorTest, InitializeMACUsesThisMachinesAdapters) {
  // The numbers of each 6-byte adapter address in sysfs, by interface index.
  std::map<int, std::pair<uint32_t, uint32_t>> sys;
  std::error_code ec;
  for (const auto& e :
       std::filesystem::directory_iterator("/sys/class/net", ec)) {
    unsigned a[6];
    if (ReadLine(e.path() / "addr_len") == "6" &&
        std::sscanf(ReadLine(e.path() / "address").c_str(), "%x:%x:%x:%x:%x:%x",
                    &a[0], &a[1], &a[2], &a[3], &a[4], &a[5]) == 6) {
      sys[std::stoi(ReadLine(e.path() / "ifindex"))] = {
          a[0] << 16 | a[1] << 8 | a[2], a[3] << 16 | a[4] << 8 | a[5]};
    }
  }
  if (sys.empty()) GTEST_SKIP() << "no /sys/class/net adapters to compare";
  uint32_t first = 0, second = 0;
  for (const auto& entry : sys) {
    std::tie(first, second) = entry.second;
    if (first != 0 || second != 0) break;
  }
  const bool usable = first != 0 && second != 0;
  ASSERT_EQ(usable, UIDGenerator::InitializeMAC("1.2.826.0.1"));
  ASSERT_EQ(usable, UIDGenerator::IsInitialized());
  if (!usable) return;
  const std::string uid = S(UIDGenerator::GenerateUID());
  EXPECT_EQ(0u, uid.find("1.2.826.0.1.1." + std::to_string(first) + "." +
                         std::to_string(second) + "." + Pid() + "."))
      << uid;
}

// Runs `body` in a child process and returns its exit status, or -1.
template <typename Fn>
int InChild(Fn body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

TEST_F(UIDGeneratorTest, NoUsableAdapterLeavesGeneratorUninitialised) {
  // A fresh network namespace has only loopback; without descriptors
  // getifaddrs cannot open its netlink socket.
  for (bool noFiles : {false, true}) {
    SCOPED_TRACE(noFiles ? "no descriptors" : "loopback only");
    const int rc = InChild([noFiles] {
      struct rlimit none = {0, 0};
      if (noFiles ? ::setrlimit(RLIMIT_NOFILE, &none) != 0
                  : ::unshare(CLONE_NEWNET) != 0)
        return 77;
      std::vector<Adapter> adapters;
      const int read = uidgenerator_internal::ReadAdapters(&adapters);
      if (noFiles
              ? read != -1
              : read != 0 || adapters.size() != 1 || adapters[0].name != "lo" ||
                    adapters[0].address != std::vector<unsigned char>(6, 0))
        return 1;
      if (UIDGenerator::InitializeMAC("1.2")) return 2;
      return UIDGenerator::IsInitialized() ? 3 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "cannot set up the child's limits";
    EXPECT_EQ(0, rc);
  }
}

TEST_F(UIDGeneratorTest, ConcurrentMintingGivesDistinctUIDsAndEveryCounter) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 100000;
  ASSERT_TRUE(
      UIDGenerator::InitializeAlternate(16777215, 16777215, "1.2.826.0.1"));
  std::vector<std::vector<std::string>> minted(kThreads);
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&minted, &failures, t] {
      ACE_CString out;
      minted[t].reserve(kPerThread);
      try {
        for (int i = 0; i < kPerThread; ++i) {
          UIDGenerator::GenerateUID(out);
          minted[t].emplace_back(out.c_str(), out.length());
        }
      } catch (const std::exception&) {
        ++failures;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  ASSERT_EQ(0, failures.load());
  // Every counter in 1..N once, hence N distinct UIDs.
  std::vector<uint32_t> counters;
  for (const auto& list : minted)
    for (const std::string& uid : list) counters.push_back(CounterOf(uid));
  std::sort(counters.begin(), counters.end());
  std::vector<uint32_t> all(size_t{kThreads * kPerThread});
  std::iota(all.begin(), all.end(), 1u);
  EXPECT_TRUE(all == counters);
}

// V text: UID.is_valid; U text: uuid.UUID; R prefix uid salt: generate_uid;
// G uid: version and variant of the UUID behind a 2.25 UID.
const char kUIDOracle[] = R"PY(
import sys, uuid, warnings
from pydicom.uid import UID, generate_uid
warnings.simplefilter("ignore")
for line in sys.stdin:
    f = line[:-1].split("\t")
    if f[0] == "V":
        print(1 if f[1] == f[1].strip() and UID(f[1]).is_valid else 0)
    elif f[0] == "U":
        try:
            print("2.25.%d" % uuid.UUID(f[1]).int)
        except ValueError:
            print("bad")
    elif f[0] == "R":
        try:
            print(generate_uid(f[1], entropy_srcs=[f[2], f[3]]))
        except ValueError:
            print("")
    else:
        u = uuid.UUID(int=int(f[1][5:]))
        print(u.version, u.variant == uuid.RFC_4122)
)PY";

struct OracleRow {
  std::string line, got;
};

std::vector<OracleRow> UIDRows() {
  std::mt19937 rng(18);
  auto pick = [&rng](size_t n) {
    return std::uniform_int_distribution<size_t>(0, n - 1)(rng);
  };
  auto digits = [&](size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += char('0' + pick(10));
    return s;
  };
  std::vector<OracleRow> rows;
  auto valid = [&](const std::string& t) {
    rows.push_back({"V\t" + t, UIDGenerator::IsValid(t.c_str()) ? "1" : "0"});
  };
  // Good UIDs of every length up to 65, each also with one byte broken.
  for (int i = 0; i < 600; ++i) {
    std::string t;
    size_t const want = 1 + pick(66);
    while (t.size() < want) {
      if (!t.empty()) t += '.';
      size_t const len = 1 + pick(8);
      std::string c =
          len == 1 ? digits(1) : char('1' + pick(9)) + digits(len - 1);
      t += c;
    }
    valid(t);
    const std::string junk = "0.a -/+x\xc3";
    std::string broken = t;
    size_t const at = pick(t.size());
    const size_t how = pick(4);
    if (how == 0) broken[at] = junk[pick(junk.size())];
    if (how == 1) broken.insert(at, 1, junk[pick(junk.size())]);
    if (how == 2) broken += '.';
    if (how == 3) broken.erase(at, 1);
    valid(broken);
  }
  for (const char* t : {"", "0.0", "00", "1.01", "1.2 "}) valid(t);
  const char* const hex = "0123456789abcdefABCDEF";
  for (int i = 0; i < 300; ++i) {
    std::string h;
    for (int d = 0; d < 32; ++d) h += hex[pick(i % 10 == 0 ? 1 : 22)];
    std::string t = h.substr(0, 8) + "-" + h.substr(8, 4) + "-" +
                    h.substr(12, 4) + "-" + h.substr(16, 4) + "-" +
                    h.substr(20);
    const int form = i % 6;
    if (form == 1) t = h;
    if (form == 2) t = "{" + t + "}";
    if (form == 3) t = "urn:uuid:" + t;
    if (form == 4) t[pick(t.size())] = "gx{"[pick(3)];
    if (form == 5) {
      const size_t at = pick(t.size());
      t.erase(at + (t[at] == '-'), 1);
    }
    rows.push_back({"U\t" + t, [&] {
                      std::string u = UIDGenerator::FromUUID(t.c_str()).c_str();
                      return u.empty() ? std::string("bad") : u;
                    }()});
  }
  for (int i = 0; i < 300; ++i) {
    std::string prefix;
    size_t const want = i % 5 ? pick(58) : pick(70);
    while (prefix.size() < want)
      prefix += char('1' + pick(9)) + digits(pick(6)) + ".";
    if (i % 17 == 0) prefix = i % 2 ? "1.2" : "1.02.";
    std::string const uid = "1.2.840." + digits(1 + pick(30));
    std::string const salt = i % 3 ? digits(pick(20)) : std::string("sälz");
    rows.push_back(
        {"R\t" + prefix + "\t" + uid + "\t" + salt,
         UIDGenerator::Remap(prefix.c_str(), uid.c_str(), salt.c_str())
             .c_str()});
  }
  return rows;
}

TEST(UIDGenerator, UIDTextsAgreeWithPython) {
  if (!comtest::PythonHas("pydicom")) GTEST_SKIP() << "no python3-pydicom";
  std::vector<OracleRow> rows = UIDRows();
  std::set<std::string> random;
  for (int i = 0; i < 200; ++i) {
    std::string const u = UIDGenerator::GenerateUUIDUID().c_str();
    EXPECT_TRUE(UIDGenerator::IsValid(u.c_str())) << u;
    random.insert(u);
    if (i < 50) rows.push_back({"G\t" + u, "4 True"});
  }
  EXPECT_EQ(200u, random.size());
  std::vector<std::string> lines;
  for (const OracleRow& r : rows) lines.push_back(r.line);
  std::vector<std::string> expected;
  std::string why;
  ASSERT_TRUE(comtest::RunPython(kUIDOracle, lines, expected, why)) << why;
  ASSERT_EQ(rows.size(), expected.size());
  std::map<std::string, int> agreed;
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].line);
    EXPECT_EQ(expected[i], rows[i].got);
    std::string const kind = rows[i].line.substr(0, 1);
    agreed[kind == "R" && !expected[i].empty()
               ? std::string("Rx")
               : kind + expected[i].substr(0, 1)]++;
  }
  // Both outcomes occur for every function.
  for (const char* k : {"V1", "V0", "Ub", "U2", "Rx", "R"})
    EXPECT_GT(agreed[k], 5) << k;
}

// The SHA-512 behind Remap against OpenSSL, across the padding boundaries.
TEST(UIDGenerator, Sha512AgreesWithOpenSSL) {
  std::string data;
  std::mt19937 rng(18);
  for (size_t len = 0; len <= 300; ++len) {
    unsigned char ours[64], ref[64];
    Kelvane::internal::Sha512(data.data(), data.size(), ours);
    SHA512(reinterpret_cast<const unsigned char*>(data.data()), data.size(),
           ref);
    EXPECT_EQ(0, std::memcmp(ours, ref, 64)) << len;
    data += static_cast<char>(rng());
  }
}

}  // namespace
