#include "common/os/osnetwork.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <ace/Event_Handler.h>
#include <ace/Reactor.h>

#include <gtest/gtest.h>

#include "common/base/dtsstudyurl.h"
#include "common/base/stringutils.h"
#include "common/os/internal/osnetwork_internal.h"

#include "support/logcapture.h"
#include "support/tempfolder.h"

namespace {

namespace K = Kelvane;
namespace I = osnetwork_internal;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

// ------------------------------------------------------------ pure rules

TEST(OSNetworkRules, NamesAndAddressTexts) {
  EXPECT_EQ("host", S(K::FullyQualifiedToBasic("host.example.org")));
  EXPECT_EQ("10", S(K::FullyQualifiedToBasic("10.1.2.3")));
  EXPECT_EQ("plain", S(K::FullyQualifiedToBasic("plain")));
  EXPECT_TRUE(K::HostNamesEquivalent("Alpha", "alpha.lab.local", false));
  EXPECT_FALSE(K::HostNamesEquivalent("Alpha", "alpha.lab.local", true));
  EXPECT_TRUE(K::HostNamesEquivalent("ALPHA.lab", "alpha.LAB", true));
  EXPECT_FALSE(K::HostNamesEquivalent("alpha", "alphabet", false));

  struct Row {
    const char* address;
    bool ip, v4, v6, dual;
  } rows[] = {
      {"10.0.0.1", true, true, false, true},
      {"::1", true, false, true, true},
      {"fe80::1%lo", false, false, false, false},  // scope is not an address
      {"10.0.0", false, false, false, false},
      {"host", false, false, false, false},
      {"", false, false, false, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.address);
    EXPECT_EQ(r.ip, K::IsIpAddress(r.address));
    EXPECT_EQ(r.v4, K::IsValidIpAddress(r.address, "IPV4"));
    EXPECT_EQ(r.v6, K::IsValidIpAddress(r.address, "ipv6"));
    EXPECT_EQ(r.dual, K::IsValidIpAddress(r.address, "dUAL"));
    EXPECT_FALSE(K::IsValidIpAddress(r.address, "IPV5"));
  }
}

TEST(OSNetworkRules, ServerOfAShare) {
  const char* rows[][3] = {
      {"\\\\server\\share", "\\\\server", "server"},
      {"//server/share/sub", "//server", "server"},
      {"\\\\srv/share\\x", "\\\\srv", "srv"},  // '/' is looked for first
      {"server", "server", "server"},
      {"\\\\server", "\\\\server", "server"},
      {"a/bc", "a/bc", "a/bc"},  // the search starts at the third character
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0]);
    const ACE_CString part = I::RemoteServerPart(r[0]);
    EXPECT_EQ(r[1], S(part));
    EXPECT_EQ(r[2], S(I::ServerHost(part)));
  }
}

TEST(OSNetworkRules, LocalAddressWalk) {
  const std::vector<std::pair<int, std::string>> both = {{AF_INET6, "fd00::2"},
                                                         {AF_INET, "10.0.0.1"},
                                                         {AF_INET6, "fd00::3"},
                                                         {AF_INET, "10.0.0.2"}};
  const std::vector<std::pair<int, std::string>> oneV6 = {
      {AF_INET, "10.0.0.1"}, {AF_INET6, "fd00::2"}};
  struct Row {
    const std::vector<std::pair<int, std::string>>* results;
    K::IPAddressMode mode;
    const char* expected;
  } rows[] = {
      {&both, K::IPV4, "10.0.0.2"},  // the last IPv4 result wins
      {&both, K::IPV6, "fd00::2"},
      {&both, K::Dual, "fd00::2"},
      {&oneV6, K::IPV4, "10.0.0.1"},
      {&oneV6, K::IPV6, ""},  // one IPv6 answer is not enough
      {&oneV6, K::Dual, ""},  // and IPv4 answers are not kept here
  };
  for (const Row& r : rows) {
    EXPECT_EQ(r.expected, S(I::PickLocalAddress(*r.results, r.mode)))
        << r.results->size() << " results, mode " << r.mode;
  }
}

TEST(OSNetworkRules, VirtualHostName) {
  K::setVirtualHostName("PACS01");
  ACE_CString name;
  for (bool full : {false, true}) {
    ASSERT_EQ(0, K::GetHostName(name, full));
    EXPECT_EQ("pacs01", S(name));
  }
  K::setVirtualHostName("");
  char own[257] = {};
  ASSERT_EQ(0, ::gethostname(own, sizeof own - 1));
  ACE_CString lower(own);
  Kelvane::ToLowerCase(lower);
  ASSERT_EQ(0, K::GetHostName(name, false));
  EXPECT_EQ(S(lower), S(name));
}

// ------------------------------------------------- a private host

// Collects failed checks of a child as text.
struct Checks {
  std::string failures;
  void Eq(const std::string& what, const std::string& expected,
          const std::string& actual) {
    if (expected != actual) {
      failures +=
          what + ": expected \"" + expected + "\", got \"" + actual + "\"\n";
    }
  }
  void True(const std::string& what, bool ok) {
    if (!ok) failures += what + "\n";
  }
};

std::string LogText(const testsupport::LogCapture& log) {
  std::string out;
  for (const auto& r : log.records()) {
    out += std::to_string(r.priority) + " " + r.text;
  }
  return out;
}

int Sh(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str());
}

// Runs `body` in a child process with its own network, mount and host-name
// namespaces, loopback up; its text comes back ("" when all checks held,
// "SKIP: why" when the namespaces cannot be had).
std::string InPrivateHost(const std::function<std::string()>& body) {
  if (::geteuid() != 0) return "SKIP: namespaces need root";
  int fds[2];
  if (::pipe(fds) != 0) return std::string("pipe: ") + std::strerror(errno);
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    std::string text;
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) != 0) {
      text = std::string("SKIP: unshare: ") + std::strerror(errno);
    } else if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) !=
                   0 ||
               Sh("ip link set lo up") != 0) {
      text = "SKIP: cannot set up the namespaces (mount or ip)";
    } else {
      // A reactor of the child's own: the parent's may hold descriptors
      // shared with it.
      ACE_Reactor::instance(new ACE_Reactor, 1);
      text = body();
    }
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  if (pid < 0) {
    ::close(fds[0]);
    return std::string("fork: ") + std::strerror(errno);
  }
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    text += "child ended with status " + std::to_string(status);
  }
  return text;
}

#define EXPECT_IN_PRIVATE_HOST(...)                               \
  do {                                                            \
    const std::string result_ = InPrivateHost(__VA_ARGS__);       \
    if (result_.rfind("SKIP: ", 0) == 0) GTEST_SKIP() << result_; \
    EXPECT_EQ("", result_);                                       \
  } while (0)

// Binds a file holding `content` over `target` (in the child's mount
// namespace only).
bool BindFile(const std::string& folder, const std::string& name,
              const std::string& content, const char* target) {
  const std::string path = folder + "/" + name;
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  std::fputs(content.c_str(), f);
  std::fclose(f);
  return ::mount(path.c_str(), target, nullptr, MS_BIND, nullptr) == 0;
}

// The resolver of the child: this hosts file, no name server that answers.
bool PrivateResolver(const std::string& folder, const std::string& hosts) {
  return BindFile(folder, "hosts", hosts, "/etc/hosts") &&
         BindFile(folder, "resolv.conf",
                  "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n",
                  "/etc/resolv.conf") &&
         BindFile(folder, "nsswitch.conf", "hosts: files dns\n",
                  "/etc/nsswitch.conf");
}

bool SetHostName(const std::string& name) {
  return ::sethostname(name.data(), name.size()) == 0;
}

// A TCP listener on port 445 of `address`; the descriptor or -1.
int ListenOn445(const char* address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(445);
  ::inet_pton(AF_INET, address, &a.sin_addr);
  if (fd < 0 || ::bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) ||
      ::listen(fd, 16) != 0) {
    if (fd >= 0) ::close(fd);
    return -1;
  }
  return fd;
}

const char kHosts[] =
    "127.0.0.1 localhost\n"
    "10.1.2.3 One6.Lab.Example one6\n"
    "fd00::2 One6.Lab.Example one6\n"
    "10.1.2.3 TWO6.Lab.Example Two6\n"
    "10.1.2.4 TWO6.Lab.Example Two6\n"
    "fd00::2 TWO6.Lab.Example Two6\n"
    "fd00::3 TWO6.Lab.Example Two6\n"
    "10.1.2.9 fileserver\n"
    "fd00::7 sixonly\n";

TEST(OSNetwork, AdaptersInTheirOrder) {
  EXPECT_IN_PRIVATE_HOST([] {
    Checks c;
    // The kernel here has no dummy adapters; tap adapters carry a chosen
    // hardware address just as well.
    if (Sh("ip tuntap add dev tap0 mode tap") != 0 ||
        Sh("ip link set tap0 address 02:1a:2b:3c:4d:5e") != 0 ||
        Sh("ip tuntap add dev tap1 mode tap") != 0 ||
        Sh("ip link set tap1 address 0a:bb:cc:dd:ee:ff") != 0) {
      return std::string("SKIP: cannot create tap adapters");
    }
    std::vector<ACE_CString> macs = {"kept"};
    c.Eq("GetMacAddresses", "0", std::to_string(K::GetMacAddresses(macs)));
    std::string all;
    for (const ACE_CString& m : macs) all += S(m) + " ";
    c.Eq("addresses",
         "kept 00-00-00-00-00-00 02-1A-2B-3C-4D-5E 0A-BB-CC-DD-EE-FF ", all);
    return c.failures;
  });
}

TEST(OSNetwork, NoDescriptorsLeft) {
  EXPECT_IN_PRIVATE_HOST([] {
    Checks c;
    struct rlimit old;
    if (::getrlimit(RLIMIT_NOFILE, &old) != 0)
      return std::string("SKIP: rlimit");
    const struct rlimit none = {0, old.rlim_max};
    testsupport::LogCapture log;
    std::vector<ACE_CString> out;
    if (::setrlimit(RLIMIT_NOFILE, &none) != 0)
      return std::string("SKIP: rlimit");
    const int macs = K::GetMacAddresses(out);
    const int addresses = K::GetLocalIPAddresses(out);
    // Back before any check: the sanitizers need descriptors of their own.
    ::setrlimit(RLIMIT_NOFILE, &old);
    c.Eq("GetMacAddresses", "-1", std::to_string(macs));
    c.Eq("GetLocalIPAddresses", "-1", std::to_string(addresses));
    c.True("nothing appended", out.empty());
    const std::string text = LogText(log);
    c.True("logged: " + text,
           text.find(std::to_string(LM_ERROR) +
                     " ACE::get_ip_interfaces failed: ") == 0);
    return c.failures;
  });
}

TEST(OSNetwork, NamesAndAddressesOfAPrivateHost) {
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  EXPECT_IN_PRIVATE_HOST([&folder] {
    Checks c;
    if (!PrivateResolver(folder.path(), kHosts) ||
        Sh("ip addr add 10.1.2.1/24 dev lo") != 0 ||
        Sh("ip -6 addr add fd00::1/64 dev lo nodad") != 0) {
      return std::string("SKIP: cannot set up the private resolver");
    }
    ACE_CString name;
    struct Row {
      const char* host;
      const char* full;            // GetHostName(.., true), "" = -1
      const char *v4, *v6, *dual;  // GetLocalIPAddress per mode
    } rows[] = {
        {"Two6", "two6.lab.example", "10.1.2.4", "fd00::2", "fd00::2"},
        {"one6", "one6.lab.example", "10.1.2.3", "", ""},
        {"nowhere", "", "kept", "kept", "kept"},  // not resolvable
    };
    for (const Row& r : rows) {
      if (!SetHostName(r.host)) return std::string("SKIP: sethostname");
      const std::string h = r.host;
      c.Eq(h + " short", "0", std::to_string(K::GetHostName(name, false)));
      ACE_CString lower(r.host);
      K::ToLowerCase(lower);
      c.Eq(h + " short name", S(lower), S(name));
      name = "kept";
      errno = 0;
      const int rc = K::GetHostName(name, true);
      if (r.full[0] == 0) {
        c.True(h + " full fails with errno", rc == -1 && errno != 0);
      } else {
        c.Eq(h + " full", std::string("0 ") + r.full,
             std::to_string(rc) + " " + S(name));
      }
      const std::pair<K::IPAddressMode, const char*> modes[] = {
          {K::IPV4, r.v4}, {K::IPV6, r.v6}, {K::Dual, r.dual}};
      for (const auto& m : modes) {
        K::SetIPAddressMode(m.first);
        ACE_CString address("kept");
        const int rc = K::GetLocalIPAddress(address);
        c.Eq(h + " mode " + std::to_string(m.first),
             std::string("0 ") + m.second,
             std::to_string(rc) + " " + S(address));
      }
      K::SetIPAddressMode(K::IPV4);
    }
    if (!SetHostName("")) return std::string("SKIP: sethostname");
    c.Eq("empty host name", "-1", std::to_string(K::GetHostName(name, true)));

    c.Eq("by address", "fileserver", S(K::GetHostNameFromIp("10.1.2.9")));
    c.Eq("case kept", "TWO6.Lab.Example", S(K::GetHostNameFromIp("fd00::3")));
    c.Eq("no address", "", S(K::GetHostNameFromIp("no.such.host")));

    std::vector<ACE_CString> all = {"kept"};
    c.Eq("GetLocalIPAddresses", "0",
         std::to_string(K::GetLocalIPAddresses(all)));
    std::set<std::string> found;
    for (const ACE_CString& a : all) found.insert(S(a));
    for (const char* a : {"kept", "127.0.0.1", "10.1.2.1", "fd00::1"}) {
      c.True(std::string("interface address ") + a, found.count(a) == 1);
    }

    // The study URL's numeric host address goes through the same resolver.
    const char* urls[][2] = {
        {"dts://FileServer?p=/x", "10.1.2.9"},
        {"dts://sixonly?p=/x", "fd00::7"},
        {"dts://10.1.2.5?p=/x", "10.1.2.5"},
        {"dts://nowhere?p=/x", DTSStudyURL::kUnresolvable}};
    for (const auto& u : urls) {
      std::string got;
      try {
        got = S(DTSStudyURL(u[0]).ipaddress());
      } catch (const BadlyFormedUrl& e) {
        got = e.what();
      }
      c.Eq(u[0], u[1], got);
    }
    return c.failures;
  });
}

TEST(OSNetwork, NameOfAnAddressWithoutOneIsAskedForEver) {
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  EXPECT_IN_PRIVATE_HOST([&folder] {
    if (!PrivateResolver(folder.path(), kHosts)) {
      return std::string("SKIP: cannot set up the private resolver");
    }
    const pid_t asker = ::fork();
    if (asker == 0) {
      K::GetHostNameFromIp("10.7.7.7");
      ::_exit(0);
    }
    // It must still be asking a while later; returning would be the fault.
    bool ended = false;
    for (int i = 0; i < 15 && !ended; ++i) {
      ::usleep(100000);
      ended = ::waitpid(asker, nullptr, WNOHANG) == asker;
    }
    ::kill(asker, SIGKILL);
    ::waitpid(asker, nullptr, 0);
    return std::string(ended ? "GetHostNameFromIp returned\n" : "");
  });
}

// Counts reactor timer ticks; at tick `openAt` it opens the listener.
class Ticker : public ACE_Event_Handler {
 public:
  explicit Ticker(int openAt) : openAt_(openAt) {}
  int handle_timeout(const ACE_Time_Value&, const void*) override {
    if (++ticks_ == openAt_) listener_ = ListenOn445("10.1.2.9");
    return 0;
  }
  int ticks() const { return ticks_; }
  int listener() const { return listener_; }

 private:
  int openAt_;
  int ticks_ = 0;
  int listener_ = -1;
};

TEST(OSNetwork, RemoteResourceCheck) {
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  EXPECT_IN_PRIVATE_HOST([&folder] {
    Checks c;
    if (!PrivateResolver(folder.path(), kHosts) ||
        Sh("ip addr add 10.1.2.1/24 dev lo") != 0) {
      return std::string("SKIP: cannot set up the private resolver");
    }
    const std::string err = std::to_string(LM_ERROR) + " ";
    const std::string dbg = std::to_string(LM_DEBUG) + " ";
    const std::string online =
        dbg + "OSNetwork::IsRemoteResourceActive: Remote Resource online!\n";
    {
      // Present.
      const int fd = ListenOn445("127.0.0.1");
      c.True("listener", fd >= 0);
      testsupport::LogCapture log;
      c.Eq("present", "0",
           std::to_string(I::IsRemoteResourceActive("\\\\127.0.0.1\\share")));
      c.Eq("present log", online, LogText(log));
      ::close(fd);
    }
    {
      // A name that does not resolve fails at once.
      testsupport::LogCapture log;
      c.Eq("unresolvable", "-1",
           std::to_string(I::IsRemoteResourceActive("//nowhere/share")));
      c.True("unresolvable log: " + LogText(log),
             LogText(log).rfind(
                 err + "OSNetwork::IsRemoteResourceActive: Error: ", 0) == 0 &&
                 LogText(log).find("isn't available") == std::string::npos);
    }
    {
      // Absent at first, then appearing while the reactor runs its timers.
      I::SetRetryInterval(ACE_Time_Value(0, 200000));
      Ticker ticker(25);  // 25 ticks of 40 ms: the server comes after 1 s
      const long id = ACE_Reactor::instance()->schedule_timer(
          &ticker, nullptr, ACE_Time_Value(0, 40000), ACE_Time_Value(0, 40000));
      testsupport::LogCapture log;
      const int rc = I::IsRemoteResourceActive("\\\\fileserver\\studies");
      ACE_Reactor::instance()->cancel_timer(id);
      I::SetRetryInterval(ACE_Time_Value(20));
      c.Eq("appearing", "0", std::to_string(rc));
      c.True("timers ran while waiting", ticker.ticks() >= 25);
      const auto& records = log.records();
      const std::string absent =
          "OSNetwork::IsRemoteResourceActive: Error: Connection refused; "
          "remote host isn't available\n";
      c.True("retried", records.size() >= 3);
      if (records.size() >= 3) {
        c.Eq("first", err + absent,
             LogText(log).substr(0, err.size() + absent.size()));
        for (size_t i = 1; i + 1 < records.size(); ++i) {
          c.Eq("later", dbg + absent,
               std::to_string(records[i].priority) + " " + records[i].text);
        }
        c.Eq("last", online,
             std::to_string(records.back().priority) + " " +
                 records.back().text);
      }
      if (ticker.listener() >= 0) ::close(ticker.listener());
    }
    return c.failures;
  });
}

bool KernelHasCifs() {
  FILE* f = std::fopen("/proc/filesystems", "r");
  bool found = false;
  char line[256];
  while (f != nullptr && std::fgets(line, sizeof line, f) != nullptr) {
    found = found || std::strstr(line, "\tcifs") != nullptr;
  }
  if (f != nullptr) std::fclose(f);
  return found;
}

TEST(OSNetwork, MountOutcomes) {
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  const bool cifs = KernelHasCifs();
  EXPECT_IN_PRIVATE_HOST([&folder, cifs] {
    Checks c;
    if (!PrivateResolver(folder.path(), kHosts)) {
      return std::string("SKIP: cannot set up the private resolver");
    }
    const std::string base = folder.path();
    const std::string taken = base + "/taken";
    const std::string same = base + "/same";
    const std::string free = base + "/free";
    for (const std::string& d : {taken, same, free}) ::mkdir(d.c_str(), 0755);
    if (::mount("other", taken.c_str(), "tmpfs", 0, nullptr) != 0 ||
        ::mount("//127.0.0.1/Share", same.c_str(), "tmpfs", 0, nullptr) != 0) {
      return std::string("SKIP: cannot mount tmpfs");
    }
    const int fd = ListenOn445("127.0.0.1");
    c.True("listener", fd >= 0);
    const std::string warn = std::to_string(LM_WARNING) + " ";
    const std::string err = std::to_string(LM_ERROR) + " ";
    struct Row {
      std::string local, remote;
      int rc, error;
      std::string log;  // the last record
    } rows[] = {
        {taken, "\\\\127.0.0.1\\share", 0, 0,
         warn +
             "OSNetwork::Mount: Local drive letter already assigned, "
             "using the same; " +
             taken + "\n"},
        {same, "\\\\127.0.0.1\\share", 0, 0,
         warn + "OSNetwork::Mount: Device already remembered; "
                "\\\\127.0.0.1\\share\n"},
        {base + "/missing", "\\\\127.0.0.1\\share", -1, ENOENT,
         err + "OSNetwork::Mount error: " + std::strerror(ENOENT) + "\n"},
        {free, "//nowhere/share", -1, -1,
         err + "OSNetwork::Mount: Unable to access remote resource.\n"},
    };
    for (const Row& r : rows) {
      testsupport::LogCapture log;
      K::RemoteMountInfo info;
      info.localName = r.local.c_str();
      info.remoteName = r.remote.c_str();
      info.userName = "reader";
      info.password = "secret";
      errno = 0;
      const int rc = K::Mount(info);
      const int error = errno;
      c.Eq(r.local + " result", std::to_string(r.rc), std::to_string(rc));
      if (r.error >= 0)
        c.Eq(r.local + " errno", std::to_string(r.error),
             std::to_string(error));
      const auto& records = log.records();
      c.Eq(r.local + " log", r.log,
           records.empty() ? std::string()
                           : std::to_string(records.back().priority) + " " +
                                 records.back().text);
    }
    if (!cifs) {
      // Without cifs support the share call itself fails.
      testsupport::LogCapture log;
      K::RemoteMountInfo info;
      info.localName = free.c_str();
      info.remoteName = "\\\\127.0.0.1\\share";
      errno = 0;
      const int rc = K::Mount(info);
      const int error = errno;
      c.Eq("no cifs", "-1 " + std::to_string(ENODEV),
           std::to_string(rc) + " " + std::to_string(error));
      c.Eq("no cifs log",
           err + "OSNetwork::Mount error: " + std::strerror(ENODEV) + "\n",
           log.records().empty()
               ? ""
               : std::to_string(log.records().back().priority) + " " +
                     log.records().back().text);
    }
    ::close(fd);
    return c.failures;
  });
}

TEST(OSNetwork, MountsAShare) {
  if (!KernelHasCifs()) {
    GTEST_SKIP() << "this kernel has no cifs file system, so no share can be "
                    "mounted";
  }
  const char* share = std::getenv("COM_TEST_CIFS_SHARE");
  if (share == nullptr) {
    GTEST_SKIP() << "set COM_TEST_CIFS_SHARE=//server/share (and "
                    "COM_TEST_CIFS_USER, COM_TEST_CIFS_PASSWORD) to mount one";
  }
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  K::RemoteMountInfo info;
  info.localName = folder.path().c_str();
  info.remoteName = share;
  const char* user = std::getenv("COM_TEST_CIFS_USER");
  const char* password = std::getenv("COM_TEST_CIFS_PASSWORD");
  info.userName = user != nullptr ? user : "";
  info.password = password != nullptr ? password : "";
  testsupport::LogCapture log;
  ASSERT_EQ(0, K::Mount(info));
  ASSERT_FALSE(log.records().empty());
  EXPECT_EQ(std::string("OSNetwork::Mount: Connection added; ") + share + "\n",
            log.records().back().text);
  ::umount2(folder.path().c_str(), MNT_DETACH);
}

}  // namespace
