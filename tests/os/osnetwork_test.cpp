#include "common/os/osnetwork.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <ace/Event_Handler.h>
#include <ace/INET_Addr.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>

#include <gtest/gtest.h>

#include "common/base/dtsstudyurl.h"
#include "common/base/stringutils.h"
#include "common/os/internal/osnetwork_internal.h"

#include "support/forked.h"
#include "support/logcapture.h"
#include "support/tempfolder.h"

namespace {

namespace K = Kelvane;
namespace I = osnetwork_internal;
using testsupport::LogCapture;

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

TEST(OSNetworkRules, NamesAndAddressTexts) {
  EXPECT_EQ("host", S(K::FullyQualifiedToBasic("host.example.org")));
  EXPECT_TRUE(K::HostNamesEquivalent("Alpha", "alpha.lab.local", false));
  EXPECT_FALSE(K::HostNamesEquivalent("Alpha", "alpha.lab.local", true));
  EXPECT_TRUE(K::HostNamesEquivalent("ALPHA.lab", "alpha.LAB", true));
  EXPECT_FALSE(K::HostNamesEquivalent("alpha", "alphabet", false));
  struct Row {
    const char* address;
    bool ip, v4, v6;
  } rows[] = {
      {"10.0.0.1", true, true, false},
      {"::1", true, false, true},
      {"fe80::1%lo", false, false, false},  // scope is not an address
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.address);
    EXPECT_EQ(r.ip, K::IsIpAddress(r.address));
    EXPECT_EQ(r.v4, K::IsValidIpAddress(r.address, "IPV4"));
    EXPECT_EQ(r.v6, K::IsValidIpAddress(r.address, "ipv6"));
    EXPECT_EQ(r.ip, K::IsValidIpAddress(r.address, "dUAL"));
    EXPECT_FALSE(K::IsValidIpAddress(r.address, "IPV5"));
  }
}

TEST(OSNetworkRules, ServerOfAShare) {
  const char* rows[][3] = {
      {"//server/share/sub", "//server", "server"},
      {"\\\\srv/share\\x", "\\\\srv", "srv"},  // '/' is looked for first
      {"a/bc", "a/bc", "a/bc"},  // the search starts at the third character
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0]);
    const ACE_CString part = I::RemoteServerPart(r[0]);
    EXPECT_EQ(r[1], S(part));
    EXPECT_EQ(r[2], S(I::ServerHost(part)));
  }
}

// ------------------------------------------------- a private host

// Collects the failed checks of a child as text.
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

std::string Record(const LogCapture::Record& r) {
  return std::to_string(r.priority) + " " + r.text;
}
std::string LogText(const LogCapture& log) {
  std::string out;
  for (const auto& r : log.records()) out += Record(r);
  return out;
}
std::string LastRecord(const LogCapture& log) {
  return log.records().empty() ? "" : Record(log.records().back());
}

int Sh(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str());
}

// The resolver of a private host: this hosts file and no name server that
// answers.
const std::pair<const char*, const char*> kResolverFiles[] = {
    {"/etc/hosts",
     "127.0.0.1 localhost\n"
     "10.1.2.3 One6.Lab.Example one6\n"
     "fd00::2 One6.Lab.Example one6\n"
     "10.1.2.3 TWO6.Lab.Example Two6\n"
     "10.1.2.4 TWO6.Lab.Example Two6\n"
     "fd00::2 TWO6.Lab.Example Two6\n"
     "fd00::3 TWO6.Lab.Example Two6\n"
     "10.1.2.9 fileserver\n"
     "fd00::7 sixonly\n"},
    {"/etc/resolv.conf",
     "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"},
    {"/etc/nsswitch.conf", "hosts: files dns\n"}};

// Runs `body` in a child with its own network, mount and host-name
// namespaces: loopback up with 10.1.2.1 and fd00::1, the resolver above
// bound over the system's files, `body` given a folder of the parent's.
// "" when all its checks held, "SKIP: why" when the host cannot be had.
std::string InPrivateHost(
    const std::function<std::string(const std::string&)>& body) {
  if (::geteuid() != 0) return "SKIP: namespaces need root";
  testsupport::TempFolder folder;
  if (!folder.ok()) return "no temporary folder";
  auto child = [&] {
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) != 0)
      return std::string("SKIP: unshare: ") + std::strerror(errno);
    bool ok =
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        Sh("ip link set lo up") == 0 &&
        Sh("ip addr add 10.1.2.1/24 dev lo") == 0 &&
        Sh("ip -6 addr add fd00::1/64 dev lo nodad") == 0;
    for (const auto& f : kResolverFiles) {
      const std::string path =
          folder.Write(std::strrchr(f.first, '/') + 1, f.second);
      ok = ok && ::mount(path.c_str(), f.first, nullptr, MS_BIND, nullptr) == 0;
    }
    if (!ok) return std::string("SKIP: cannot set up the private host");
    // A reactor of the child's own: the parent's may share descriptors.
    ACE_Reactor::instance(new ACE_Reactor, 1);
    return body(folder.path());
  };
  return testsupport::RunForked(child, 30);  // a hang fails after 30 s
}

#define EXPECT_IN_PRIVATE_HOST(...)                               \
  do {                                                            \
    const std::string result_ = InPrivateHost(__VA_ARGS__);       \
    if (result_.rfind("SKIP: ", 0) == 0) GTEST_SKIP() << result_; \
    EXPECT_EQ("", result_);                                       \
  } while (0)

// A TCP listener on port 445 of `address`; the descriptor or -1.
int ListenOn445(const char* address) {
  ACE_SOCK_Acceptor acceptor;  // leaves its descriptor open when it goes
  return acceptor.open(ACE_INET_Addr(445, address), 1) == 0
             ? acceptor.get_handle()
             : -1;
}

TEST(OSNetwork, AdaptersInTheirOrderOrTheError) {
  EXPECT_IN_PRIVATE_HOST([](const std::string&) {
    // Tap adapters: this kernel may have no dummy ones.
    if (Sh("ip tuntap add dev tap0 mode tap") != 0 ||
        Sh("ip link set tap0 address 02:1a:2b:3c:4d:5e") != 0 ||
        Sh("ip tuntap add dev tap1 mode tap") != 0 ||
        Sh("ip link set tap1 address 0a:bb:cc:dd:ee:ff") != 0) {
      return std::string("SKIP: cannot create tap adapters");
    }
    Checks c;
    std::vector<ACE_CString> macs = {"kept"};
    std::string all = std::to_string(K::GetMacAddresses(macs)) + ":";
    for (const ACE_CString& m : macs) all += " " + S(m);
    c.Eq("addresses",
         "0: kept 00-00-00-00-00-00 02-1A-2B-3C-4D-5E 0A-BB-CC-DD-EE-FF", all);

    // Without a descriptor to spare both lists fail and append nothing.
    struct rlimit old;
    if (::getrlimit(RLIMIT_NOFILE, &old) != 0) return c.failures + "rlimit";
    const struct rlimit none = {0, old.rlim_max};
    LogCapture log;
    std::vector<ACE_CString> out;
    if (::setrlimit(RLIMIT_NOFILE, &none) != 0) return c.failures + "rlimit";
    const int rcs[] = {K::GetMacAddresses(out), K::GetLocalIPAddresses(out)};
    ::setrlimit(RLIMIT_NOFILE, &old);
    c.Eq("without descriptors", "-1 -1 0",
         std::to_string(rcs[0]) + " " + std::to_string(rcs[1]) + " " +
             std::to_string(out.size()));
    c.True("logged: " + LogText(log),
           LogText(log).rfind(
               std::to_string(LM_ERROR) + " ACE::get_ip_interfaces failed: ",
               0) == 0);
    return c.failures;
  });
}

TEST(OSNetwork, NamesAndAddressesOfAPrivateHost) {
  EXPECT_IN_PRIVATE_HOST([](const std::string&) {
    Checks c;
    ACE_CString name;
    K::setVirtualHostName("PACS01");  // both forms; cleared, the real one
    std::string virtualName;
    for (bool full : {false, true}) {
      const int rc = K::GetHostName(name, full);
      virtualName += std::to_string(rc) + " " + S(name) + " ";
    }
    c.Eq("virtual host", "0 pacs01 0 pacs01 ", virtualName);
    K::setVirtualHostName("");
    const std::pair<std::string, std::string> rows[] = {
        // Host: short name | full name | local address as IPv4, IPv6, dual.
        {"Two6", "0 two6|0 two6.lab.example|0 10.1.2.4|0 fd00::2|0 fd00::2"},
        {"one6", "0 one6|0 one6.lab.example|0 10.1.2.3|0 |0 "},
        {"nowhere", "0 nowhere|-1 with errno|0 kept|0 kept|0 kept"},
    };
    for (const auto& r : rows) {
      if (::sethostname(r.first.data(), r.first.size()) != 0)
        return std::string("SKIP: sethostname");
      std::string got = std::to_string(K::GetHostName(name, false));
      got += " " + S(name) + "|";
      name = "kept";
      errno = 0;
      const int rc = K::GetHostName(name, true);
      got += std::to_string(rc) + (rc == 0      ? " " + S(name)
                                   : errno != 0 ? " with errno"
                                                : "");
      for (K::IPAddressMode mode : {K::IPV4, K::IPV6, K::Dual}) {
        K::SetIPAddressMode(mode);
        ACE_CString address("kept");
        const int rc = K::GetLocalIPAddress(address);
        got += "|" + std::to_string(rc) + " " + S(address);
      }
      K::SetIPAddressMode(K::IPV4);
      c.Eq(r.first, r.second, got);
    }
    if (::sethostname("", 0) != 0) return std::string("SKIP: sethostname");
    c.Eq("empty host name", "-1", std::to_string(K::GetHostName(name, true)));
    c.Eq("by address", "fileserver", S(K::GetHostNameFromIp("10.1.2.9")));
    c.Eq("case kept", "TWO6.Lab.Example", S(K::GetHostNameFromIp("fd00::3")));

    std::vector<ACE_CString> all = {"kept"};
    std::string listed = std::to_string(K::GetLocalIPAddresses(all)) + " ";
    for (const ACE_CString& a : all) listed += S(a) + " ";
    for (const char* a : {"0 kept ", " 127.0.0.1 ", " 10.1.2.1 ", " fd00::1 "})
      c.True(std::string(a) + "not in " + listed,
             listed.find(a) != listed.npos);

    // A study URL's host address comes from the same resolver.
    const char* urls[][2] = {
        {"dts://sixonly?p=/x", "fd00::7"},
        {"dts://nowhere?p=/x", DTSStudyURL::kUnresolvable}};
    for (const auto& u : urls) {
      try {
        c.Eq(u[0], u[1], S(DTSStudyURL(u[0]).ipaddress()));
      } catch (const BadlyFormedUrl& e) {
        c.Eq(u[0], u[1], e.what());
      }
    }
    return c.failures;
  });
}

TEST(OSNetwork, NameOfAnAddressWithoutOneIsAskedForEver) {
  EXPECT_IN_PRIVATE_HOST([](const std::string&) {
    const pid_t asker = ::fork();
    if (asker == 0) {
      K::GetHostNameFromIp("10.7.7.7");
      ::_exit(0);
    }
    // Still asking 1.5 s later; returning would be the fault.
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
struct Ticker : ACE_Event_Handler {
  explicit Ticker(int at) : openAt(at) {}
  int handle_timeout(const ACE_Time_Value&, const void*) override {
    if (++ticks == openAt) listener = ListenOn445("10.1.2.9");
    return 0;
  }
  int openAt, ticks = 0, listener = -1;
};

TEST(OSNetwork, RemoteResourceCheck) {
  EXPECT_IN_PRIVATE_HOST([](const std::string&) {
    Checks c;
    const std::string err = std::to_string(LM_ERROR) + " ";
    const std::string dbg = std::to_string(LM_DEBUG) + " ";
    const std::string online =
        dbg + "OSNetwork::IsRemoteResourceActive: Remote Resource online!\n";
    // Absent at first, then appearing while the reactor runs its timers.
    I::SetRetryInterval(ACE_Time_Value(0, 200000));
    Ticker ticker(25);  // 25 ticks of 40 ms: the server comes after 1 s
    const long id = ACE_Reactor::instance()->schedule_timer(
        &ticker, nullptr, ACE_Time_Value(0, 40000), ACE_Time_Value(0, 40000));
    LogCapture log;
    const int rc = I::IsRemoteResourceActive("\\\\fileserver\\studies");
    ACE_Reactor::instance()->cancel_timer(id);
    I::SetRetryInterval(ACE_Time_Value(20));
    c.Eq("appearing", "0", std::to_string(rc));
    c.True("timers ran while waiting", ticker.ticks >= 25);
    const auto& records = log.records();
    const std::string absent =
        "OSNetwork::IsRemoteResourceActive: Error: Connection refused; "
        "remote host isn't available\n";
    c.True("retried", records.size() >= 3);
    for (size_t i = 0; records.size() >= 3 && i + 1 < records.size(); ++i)
      c.Eq("retry " + std::to_string(i), (i == 0 ? err : dbg) + absent,
           Record(records[i]));
    c.Eq("last", online, LastRecord(log));
    if (ticker.listener >= 0) ::close(ticker.listener);
    return c.failures;
  });
}

bool KernelHasCifs() {
  return testsupport::TempFolder::Read("/proc/filesystems").find("\tcifs\n") !=
         std::string::npos;
}

TEST(OSNetwork, MountOutcomes) {
  const bool cifs = KernelHasCifs();
  EXPECT_IN_PRIVATE_HOST([cifs](const std::string& base) {
    const std::string taken = base + "/taken", same = base + "/same",
                      free = base + "/free";
    for (const std::string& d : {taken, same, free}) ::mkdir(d.c_str(), 0755);
    if (::mount("other", taken.c_str(), "tmpfs", 0, nullptr) != 0 ||
        ::mount("//127.0.0.1/Share", same.c_str(), "tmpfs", 0, nullptr) != 0) {
      return std::string("SKIP: cannot mount tmpfs");
    }
    Checks c;
    const int fd = ListenOn445("127.0.0.1");
    c.True("listener", fd >= 0);
    const std::string warn = std::to_string(LM_WARNING) + " ";
    const std::string err = std::to_string(LM_ERROR) + " ";
    struct Row {
      std::string local, remote;
      int rc, error;    // error < 0: errno not looked at
      std::string log;  // the last record
    };
    std::vector<Row> rows = {
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
    if (!cifs) {  // the share call itself fails
      rows.push_back(
          {free, "\\\\127.0.0.1\\share", -1, ENODEV,
           err + "OSNetwork::Mount error: " + std::strerror(ENODEV) + "\n"});
    }
    for (const Row& r : rows) {
      LogCapture log;
      K::RemoteMountInfo info;
      info.localName = r.local.c_str();
      info.remoteName = r.remote.c_str();
      errno = 0;
      const int rc = K::Mount(info);
      const int error = r.error < 0 ? r.error : errno;
      c.Eq(r.local + " result",
           std::to_string(r.rc) + " " + std::to_string(r.error),
           std::to_string(rc) + " " + std::to_string(error));
      c.Eq(r.local + " log", r.log, LastRecord(log));
    }
    ::close(fd);
    return c.failures;
  });
}

TEST(OSNetwork, MountsAShare) {
  if (!KernelHasCifs())
    GTEST_SKIP() << "this kernel has no cifs file system to mount a share";
  auto env = [](const char* name) {
    return std::string(std::getenv(name) ? std::getenv(name) : "");
  };
  const std::string share = env("COM_TEST_CIFS_SHARE");
  if (share.empty()) {
    GTEST_SKIP() << "set COM_TEST_CIFS_SHARE=//server/share (and "
                    "COM_TEST_CIFS_USER, COM_TEST_CIFS_PASSWORD) to mount one";
  }
  testsupport::TempFolder folder;
  ASSERT_TRUE(folder.ok());
  K::RemoteMountInfo info;
  info.localName = folder.path().c_str();
  info.remoteName = share.c_str();
  info.userName = env("COM_TEST_CIFS_USER").c_str();
  info.password = env("COM_TEST_CIFS_PASSWORD").c_str();
  LogCapture log;
  ASSERT_EQ(0, K::Mount(info));
  EXPECT_EQ(std::to_string(LM_NOTICE) +
                " OSNetwork::Mount: Connection added; " + share + "\n",
            LastRecord(log));
  ::umount2(folder.path().c_str(), MNT_DETACH);
}

}  // namespace
