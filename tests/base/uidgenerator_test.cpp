#include "common/base/uidgenerator.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fstream>
#include <map>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include "common/base/internal/uidgenerator_internal.h"

namespace {

using uidgenerator_internal::Adapter;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

std::string Pid() { return std::to_string(::getpid()); }

// The UID split at its dots.
std::vector<std::string> Fields(const std::string& uid) {
  std::vector<std::string> out;
  std::stringstream in(uid);
  for (std::string f; std::getline(in, f, '.');) out.push_back(f);
  return out;
}

uint32_t CounterOf(const std::string& uid) {
  return static_cast<uint32_t>(std::stoul(uid.substr(uid.rfind('.') + 1)));
}

class UIDGeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override { uidgenerator_internal::ResetForTest(0); }
  void TearDown() override { uidgenerator_internal::ResetForTest(0); }
};

TEST_F(UIDGeneratorTest, MintingBeforeInitialisationThrows) {
  EXPECT_FALSE(UIDGenerator::IsInitialized());
  ACE_CString out("untouched");
  EXPECT_THROW(UIDGenerator::GenerateUID(out), std::exception);
  EXPECT_EQ("untouched", S(out));
  EXPECT_THROW(UIDGenerator::GenerateUID(), std::exception);
}

TEST_F(UIDGeneratorTest, AlternateLayoutTimeAndConsecutiveCounters) {
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(12, 345, "1.2.3"));
  ASSERT_TRUE(UIDGenerator::IsInitialized());
  const std::string prefix = "1.2.3.2.12.345." + Pid() + ".";
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  std::vector<std::string> uids;
  ACE_CString out;
  for (int i = 0; i < 5; ++i) {
    UIDGenerator::GenerateUID(out);
    uids.push_back(S(out));
    uids.push_back(S(UIDGenerator::GenerateUID()));
  }
  const int64_t after = static_cast<int64_t>(std::time(nullptr));
  for (size_t i = 0; i < uids.size(); ++i) {
    SCOPED_TRACE(uids[i]);
    ASSERT_EQ(0u, uids[i].compare(0, prefix.size(), prefix));
    const std::vector<std::string> f = Fields(uids[i]);
    ASSERT_EQ(9u, f.size());
    const int64_t t = std::stoll(f[7]);
    EXPECT_LE(before, t);
    EXPECT_GE(after, t);
    EXPECT_EQ(std::to_string(i + 1), f[8]);
  }
}

TEST_F(UIDGeneratorTest, AlternateNumbersArePrintedAsSigned32Bit) {
  struct Row {
    unsigned long first;
    unsigned long second;
    const char* root;
    std::string prefix;
  } rows[] = {
      {0, 0, "9", "9.2.0.0."},
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
  EXPECT_EQ(0xFFFFFFFFu, CounterOf(S(UIDGenerator::GenerateUID())));
  EXPECT_EQ(1u, CounterOf(S(UIDGenerator::GenerateUID())));
  EXPECT_EQ(2u, CounterOf(S(UIDGenerator::GenerateUID())));
}

// Collects LM_ERROR records logged on this thread.
class ErrorLog : public ACE_Log_Msg_Callback {
 public:
  ErrorLog() {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    old_callback_ = log->msg_callback(this);
    old_flags_ = log->flags();
    log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    log->clr_flags(ACE_Log_Msg::STDERR);
  }
  ~ErrorLog() override {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->msg_callback(old_callback_);
    log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
    log->set_flags(old_flags_);
  }
  void log(ACE_Log_Record& record) override {
    if (record.type() == LM_ERROR) errors.push_back(record.msg_data());
  }
  std::vector<std::string> errors;

 private:
  ACE_Log_Msg_Callback* old_callback_;
  unsigned long old_flags_;
};

TEST_F(UIDGeneratorTest, LengthLimitIsSixtyFourCharacters) {
  // "<root>.2.1.2.<pid>." + 10-digit seconds + ".9": pick the root so the
  // UID is exactly 64, then 65 characters long.
  const size_t fixed = std::string(".2.1.2.").size() + Pid().size() + 1 +
                       std::to_string(std::time(nullptr)).size() + 2;
  for (size_t total : {size_t{63}, size_t{64}, size_t{65}, size_t{80}}) {
    SCOPED_TRACE(total);
    const std::string root(total - fixed, '7');
    uidgenerator_internal::ResetForTest(8);
    ASSERT_TRUE(UIDGenerator::InitializeAlternate(1, 2, root.c_str()));
    ErrorLog log;
    if (total <= 64) {
      const std::string uid = S(UIDGenerator::GenerateUID());
      EXPECT_EQ(total, uid.size());
      EXPECT_EQ('9', uid.back());
      EXPECT_TRUE(log.errors.empty());
      continue;
    }
    ACE_CString out("kept");
    try {
      UIDGenerator::GenerateUID(out);
      ADD_FAILURE() << "no exception";
    } catch (const UIDGeneratorException& e) {
      EXPECT_STREQ("Unable to create UID that is less than 64 characters",
                   e.what());
    }
    EXPECT_EQ("kept", S(out));
    ASSERT_EQ(1u, log.errors.size());
    // The record carries the first 64 characters of the UID.
    EXPECT_NE(std::string::npos,
              log.errors[0].find(" - " + root.substr(0, 20)));
    EXPECT_THROW(UIDGenerator::GenerateUID(), std::exception);
  }
}

TEST_F(UIDGeneratorTest, FirstInitialisationWinsButAlternateReplaces) {
  ASSERT_TRUE(UIDGenerator::InitializeAlternate(7, 8, "1.2"));
  EXPECT_TRUE(UIDGenerator::InitializeMAC("9.9"));
  EXPECT_EQ(0u, S(UIDGenerator::GenerateUID()).find("1.2.2.7.8." + Pid()));

  ASSERT_TRUE(UIDGenerator::InitializeAlternate(5, 6, "3.4"));
  EXPECT_EQ(0u, S(UIDGenerator::GenerateUID()).find("3.4.2.5.6." + Pid()));
}

TEST(UIDGeneratorRule, PickHardwareNumbers) {
  typedef std::vector<unsigned char> Mac;
  const Mac lo{0, 0, 0, 0, 0, 0};
  const Mac eth{0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
  struct Row {
    const char* what;
    std::vector<Mac> macs;
    bool ok;
    uint32_t first;
    uint32_t second;
  } rows[] = {
      {"one adapter", {eth}, true, 6699, 3951966},
      {"loopback first", {lo, eth}, true, 6699, 3951966},
      {"first usable wins", {eth, Mac{2, 0, 0, 0, 0, 1}}, true, 6699, 3951966},
      {"not six bytes",
       {Mac{1, 2, 3, 4, 5, 6, 7, 8}, Mac{}, Mac{1, 2, 3, 4}},
       false,
       0,
       0},
      {"zero lower half stops the walk",
       {Mac{2, 0, 0, 0, 0, 0}, eth},
       false,
       0x020000,
       0},
      {"zero upper half stops the walk",
       {Mac{0, 0, 0, 0, 0, 1}, eth},
       false,
       0,
       1},
      {"only loopback", {lo}, false, 0, 0},
      {"none", {}, false, 0, 0},
      {"all ones", {Mac(6, 0xFF)}, true, 0xFFFFFF, 0xFFFFFF},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<Adapter> adapters;
    for (const Mac& m : r.macs) adapters.push_back(Adapter{"x", m});
    uint32_t first = 99, second = 99;
    EXPECT_EQ(r.ok, uidgenerator_internal::PickHardwareNumbers(adapters, &first,
                                                               &second));
    EXPECT_EQ(r.first, first);
    EXPECT_EQ(r.second, second);
  }
}

struct SysAdapter {
  int index;
  std::string name;
  std::vector<unsigned char> address;
};

std::string ReadLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// The adapters with 6-byte addresses as sysfs shows them, by interface index.
std::vector<SysAdapter> SysfsAdapters() {
  std::vector<SysAdapter> out;
  DIR* dir = ::opendir("/sys/class/net");
  if (dir == nullptr) return out;
  while (struct dirent* e = ::readdir(dir)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string base = "/sys/class/net/" + name + "/";
    if (ReadLine(base + "addr_len") != "6") continue;
    SysAdapter a{std::atoi(ReadLine(base + "ifindex").c_str()), name, {}};
    std::stringstream hex(ReadLine(base + "address"));
    for (std::string byte; std::getline(hex, byte, ':');) {
      a.address.push_back(
          static_cast<unsigned char>(std::stoul(byte, nullptr, 16)));
    }
    out.push_back(a);
  }
  ::closedir(dir);
  std::sort(out.begin(), out.end(),
            [](const SysAdapter& a, const SysAdapter& b) {
              return a.index < b.index;
            });
  return out;
}

TEST_F(UIDGeneratorTest, InitializeMACUsesThisMachinesAdapters) {
  const std::vector<SysAdapter> sys = SysfsAdapters();
  if (sys.empty()) GTEST_SKIP() << "no /sys/class/net adapters to compare";

  std::vector<Adapter> read;
  ASSERT_EQ(0, uidgenerator_internal::ReadAdapters(&read));
  std::vector<Adapter> six;
  for (const Adapter& a : read) {
    if (a.address.size() == 6) six.push_back(a);
  }
  ASSERT_EQ(sys.size(), six.size());
  for (size_t i = 0; i < sys.size(); ++i) {
    SCOPED_TRACE(sys[i].name);
    EXPECT_EQ(sys[i].name, six[i].name);
    EXPECT_EQ(sys[i].address, six[i].address);
  }

  // The expected numbers, worked out from sysfs alone.
  uint32_t first = 0, second = 0;
  for (const SysAdapter& a : sys) {
    first = (a.address[0] << 16) | (a.address[1] << 8) | a.address[2];
    second = (a.address[3] << 16) | (a.address[4] << 8) | a.address[5];
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

TEST_F(UIDGeneratorTest, OnlyLoopbackLeavesGeneratorUninitialised) {
  // A fresh network namespace holds nothing but its loopback adapter.
  const int rc = InChild([] {
    if (::unshare(CLONE_NEWNET) != 0) return 77;
    std::vector<Adapter> adapters;
    if (uidgenerator_internal::ReadAdapters(&adapters) != 0) return 1;
    if (adapters.size() != 1 || adapters[0].name != "lo") return 2;
    if (adapters[0].address != std::vector<unsigned char>(6, 0)) return 3;
    if (UIDGenerator::InitializeMAC("1.2")) return 4;
    if (UIDGenerator::IsInitialized()) return 5;
    try {
      UIDGenerator::GenerateUID();
      return 6;
    } catch (const std::exception&) {
    }
    // The fallback still works.
    if (!UIDGenerator::InitializeAlternate(1, 2, "1.2")) return 7;
    return UIDGenerator::GenerateUID().length() > 0 ? 0 : 8;
  });
  if (rc == 77) GTEST_SKIP() << "cannot create a network namespace";
  EXPECT_EQ(0, rc);
}

TEST_F(UIDGeneratorTest, UnreadableAdapterListFailsInitialisation) {
  // With no descriptor left, getifaddrs cannot open its netlink socket.
  const int rc = InChild([] {
    struct rlimit none = {0, 0};
    if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return 77;
    std::vector<Adapter> adapters;
    if (uidgenerator_internal::ReadAdapters(&adapters) != -1) return 1;
    if (UIDGenerator::InitializeMAC("1.2")) return 2;
    return UIDGenerator::IsInitialized() ? 3 : 0;
  });
  if (rc == 77) GTEST_SKIP() << "cannot lower RLIMIT_NOFILE";
  EXPECT_EQ(0, rc);
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

  std::vector<bool> seen(kThreads * kPerThread + 1, false);
  std::vector<std::string> all;
  all.reserve(kThreads * kPerThread);
  size_t too_long = 0, bad_counter = 0, repeated_counter = 0;
  for (const auto& list : minted) {
    for (const std::string& uid : list) {
      if (uid.size() > 64) ++too_long;
      const uint32_t n = CounterOf(uid);
      if (n == 0 || n >= seen.size()) {
        ++bad_counter;
      } else if (seen[n]) {
        ++repeated_counter;
      } else {
        seen[n] = true;
      }
      all.push_back(uid);
    }
  }
  EXPECT_EQ(0u, too_long);
  EXPECT_EQ(0u, bad_counter);
  EXPECT_EQ(0u, repeated_counter);
  EXPECT_EQ(0, std::count(seen.begin() + 1, seen.end(), false))
      << "counter values in 1..800000 are missing";
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all.end(), std::adjacent_find(all.begin(), all.end()));
  EXPECT_EQ(size_t{kThreads * kPerThread}, all.size());
}

}  // namespace
