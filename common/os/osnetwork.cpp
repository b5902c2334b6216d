#include "common/os/osnetwork.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_unistd.h>
#include <ace/Reactor.h>
#include <ace/Sock_Connect.h>

#include "common/base/comlog.h"
#include "common/base/internal/uidgenerator_internal.h"
#include "common/base/stringutils.h"
#include "common/os/internal/osnetwork_internal.h"

namespace {

// Set once at start-up (see the header), hence no lock.
ACE_CString g_virtualHostName;
Kelvane::IPAddressMode g_addressMode = Kelvane::IPV4;
ACE_Time_Value g_retryInterval(20);

const unsigned short kSmbPort = 445;
const int kConnectTimeoutMs = 5000;

int ResolverErrorToErrno(int code) {
  switch (code) {
    case EAI_AGAIN:
      return EAGAIN;
    case EAI_MEMORY:
      return ENOMEM;
    case EAI_SYSTEM:
      return errno != 0 ? errno : EIO;
    default:
      return ENOENT;
  }
}

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

namespace osnetwork_internal {

ACE_CString RemoteServerPart(const ACE_CString& remoteName) {
  const char* s = remoteName.c_str();
  const size_t length = remoteName.length();
  if (length > 2) {
    const char* native = std::strchr(s + 2, '/');
    const char* cut = native != nullptr ? native : std::strchr(s + 2, '\\');
    if (cut != nullptr) return remoteName.substring(0, cut - s);
  }
  return remoteName;
}

ACE_CString ServerHost(const ACE_CString& serverPart) {
  size_t skip = 0;
  while (skip < 2 && skip < serverPart.length() &&
         IsSeparator(serverPart[skip])) {
    ++skip;
  }
  return serverPart.substring(skip);
}

ACE_CString PickLocalAddress(
    const std::vector<std::pair<int, std::string>>& results,
    Kelvane::IPAddressMode mode) {
  std::string ipv4;
  std::vector<const std::string*> ipv6;
  for (const auto& r : results) {
    if (r.first == AF_INET && mode == Kelvane::IPV4) {
      ipv4 = r.second;  // the last one wins
    } else if (r.first == AF_INET6 &&
               (mode == Kelvane::IPV6 || mode == Kelvane::Dual)) {
      ipv6.push_back(&r.second);
    }
  }
  // Fewer than two IPv6 answers fall back on the IPv4 one, deliberately.
  if (ipv6.size() < 2 || mode == Kelvane::IPV4)
    return ACE_CString(ipv4.c_str());
  return ACE_CString(ipv6.front()->c_str());
}

int MountOutcome(int code, const Kelvane::RemoteMountInfo& info) {
  switch (code) {
    case 0:
      COM_LOG((LM_NOTICE, "OSNetwork::Mount: Connection added; %s\n",
               info.remoteName.c_str()));
      return 0;
    case kAlreadyAssigned:
      COM_LOG((LM_WARNING,
               "OSNetwork::Mount: Local drive letter already assigned, using "
               "the same; %s\n",
               info.localName.c_str()));
      return 0;
    case kAlreadyRemembered:
      COM_LOG((LM_WARNING, "OSNetwork::Mount: Device already remembered; %s\n",
               info.remoteName.c_str()));
      return 0;
    default:
      errno = code;
      COM_LOG((LM_ERROR, "OSNetwork::Mount error: %m\n"));
      errno = code;
      return -1;
  }
}

namespace {

struct Probe {
  int code;  // 0, kNetworkPathNotFound, or another non-zero value
  std::string message;
};

// Connects to one address with a bounded wait. 0, or the errno value.
int ConnectOnce(const struct addrinfo* a) {
  const int fd =
      ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
               a->ai_protocol);
  if (fd < 0) return -errno;  // not a connection failure
  int error = 0;
  if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
    error = errno;
    if (error == EINPROGRESS) {
      struct pollfd p = {fd, POLLOUT, 0};
      int n;
      do {
        n = ::poll(&p, 1, kConnectTimeoutMs);
      } while (n < 0 && errno == EINTR);
      if (n == 0) {
        error = ETIMEDOUT;
      } else if (n < 0) {
        error = errno;
      } else {
        socklen_t len = sizeof error;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0) {
          error = errno;
        }
      }
    }
  }
  ::close(fd);
  return error;
}

// The remote-time check of the original: does the server answer?
Probe AskServer(const ACE_CString& host) {
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  char service[8];
  std::snprintf(service, sizeof service, "%u", kSmbPort);
  struct addrinfo* results = nullptr;
  const int rc = ::getaddrinfo(host.c_str(), service, &hints, &results);
  if (rc != 0) return {rc, ::gai_strerror(rc)};
  Probe probe = {kNetworkPathNotFound, std::strerror(EHOSTUNREACH)};
  for (const struct addrinfo* a = results; a != nullptr; a = a->ai_next) {
    const int error = ConnectOnce(a);
    if (error == 0) {
      probe = {0, ""};
      break;
    }
    if (error < 0) {
      probe = {-error, std::strerror(-error)};
      break;
    }
    probe.message = std::strerror(error);
  }
  ::freeaddrinfo(results);
  return probe;
}

// Runs this thread's reactor for `interval`; whatever of it the reactor
// does not use (its loop ended, or it belongs to another thread) is slept,
// so a retry never spins.
void WaitRunningReactor(const ACE_Time_Value& interval) {
  ACE_Time_Value left(interval);
  ACE_Reactor::instance()->run_reactor_event_loop(left);
  if (left > ACE_Time_Value::zero) ACE_OS::sleep(left);
}

}  // namespace

int IsRemoteResourceActive(const ACE_CString& remoteName) {
  const ACE_CString server = ServerHost(RemoteServerPart(remoteName));
  Probe probe = AskServer(server);
  for (bool first = true; probe.code == kNetworkPathNotFound; first = false) {
    COM_LOG((first ? LM_ERROR : LM_DEBUG,
             "OSNetwork::IsRemoteResourceActive: Error: %s; remote host "
             "isn't available\n",
             probe.message.c_str()));
    WaitRunningReactor(g_retryInterval);
    probe = AskServer(server);
  }
  if (probe.code != 0) {
    COM_LOG((LM_ERROR, "OSNetwork::IsRemoteResourceActive: Error: %s\n",
             probe.message.c_str()));
    return -1;
  }
  COM_LOG((LM_DEBUG,
           "OSNetwork::IsRemoteResourceActive: Remote Resource online!\n"));
  return 0;
}

void SetRetryInterval(const ACE_Time_Value& interval) {
  g_retryInterval = interval;
}

}  // namespace osnetwork_internal

namespace Kelvane {

int GetHostName(ACE_CString& name, bool fullyQualified) {
  if (g_virtualHostName.length() != 0) {
    name = g_virtualHostName;
    ToLowerCase(name);
    return 0;
  }
  char buffer[257];
  if (::gethostname(buffer, sizeof buffer) != 0) {
    struct utsname u;
    if (::uname(&u) != 0) return -1;
    std::snprintf(buffer, sizeof buffer, "%s", u.nodename);
  }
  buffer[sizeof buffer - 1] = '\0';
  if (!fullyQualified) {
    name = buffer;
  } else {
    if (buffer[0] == '\0') return -1;
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_flags = AI_CANONNAME;
    struct addrinfo* results = nullptr;
    errno = 0;
    const int rc = ::getaddrinfo(buffer, nullptr, &hints, &results);
    if (rc != 0) {
      errno = ResolverErrorToErrno(rc);
      return -1;
    }
    name = results->ai_canonname != nullptr ? results->ai_canonname : buffer;
    ::freeaddrinfo(results);
  }
  ToLowerCase(name);
  return 0;
}

void setVirtualHostName(const ACE_CString& name) { g_virtualHostName = name; }

ACE_CString GetHostNameFromIp(const ACE_CString& address) {
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* results = nullptr;
  if (::getaddrinfo(address.c_str(), nullptr, &hints, &results) != 0 ||
      results == nullptr) {
    return ACE_CString();
  }
  char host[1025];
  // Asked again until it answers: see the header.
  while (::getnameinfo(results->ai_addr, results->ai_addrlen, host, sizeof host,
                       nullptr, 0, NI_NAMEREQD) != 0) {
  }
  ::freeaddrinfo(results);
  return ACE_CString(host);
}

int GetLocalIPAddress(ACE_CString& address) {
  char name[256];
  if (::gethostname(name, sizeof name) != 0) return 0;
  name[sizeof name - 1] = '\0';
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* results = nullptr;
  if (::getaddrinfo(name, nullptr, &hints, &results) != 0) return 0;
  const IPAddressMode mode = g_addressMode;
  std::vector<std::pair<int, std::string>> texts;
  for (const struct addrinfo* r = results; r != nullptr; r = r->ai_next) {
    if (r->ai_family == AF_INET && mode == IPV4) {
      char text[INET_ADDRSTRLEN];
      const struct sockaddr_in* in =
          reinterpret_cast<const struct sockaddr_in*>(r->ai_addr);
      if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text) != nullptr) {
        texts.emplace_back(AF_INET, text);
      }
    } else if (r->ai_family == AF_INET6 && (mode == IPV6 || mode == Dual)) {
      char text[128];
      const int rc = ::getnameinfo(r->ai_addr, r->ai_addrlen, text, sizeof text,
                                   nullptr, 0, NI_NUMERICHOST);
      if (rc != 0) {
        std::printf("Error value: %d", rc);
        std::fflush(stdout);
        ::freeaddrinfo(results);
        return -1;
      }
      texts.emplace_back(AF_INET6, text);
    }
  }
  ::freeaddrinfo(results);
  address = osnetwork_internal::PickLocalAddress(texts, mode);
  return 0;
}

int GetLocalIPAddresses(std::vector<ACE_CString>& addresses) {
  ACE_INET_Addr* list = nullptr;
  size_t count = 0;
  if (ACE::get_ip_interfaces(count, list) != 0) {
    COM_LOG((LM_ERROR, "%p\n", "ACE::get_ip_interfaces failed"));
    return -1;
  }
  for (size_t i = 0; i < count; ++i) {
    char text[INET6_ADDRSTRLEN + 32];
    if (list[i].get_host_addr(text, sizeof text) != nullptr) {
      addresses.push_back(ACE_CString(text));
    }
  }
  delete[] list;
  return 0;
}

int GetMacAddresses(std::vector<ACE_CString>& addresses) {
  std::vector<uidgenerator_internal::Adapter> adapters;
  if (uidgenerator_internal::ReadAdapters(&adapters) != 0) return -1;
  for (const uidgenerator_internal::Adapter& a : adapters) {
    // Shorter hardware addresses read as zeros past their end.
    unsigned char b[6] = {0, 0, 0, 0, 0, 0};
    std::memcpy(b, a.address.data(), std::min<size_t>(a.address.size(), 6));
    char text[18];
    std::snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", b[0],
                  b[1], b[2], b[3], b[4], b[5]);
    addresses.push_back(ACE_CString(text));
  }
  return 0;
}

ACE_CString FullyQualifiedToBasic(const ACE_CString& name) {
  const ACE_CString::size_type dot = name.find('.');
  if (dot == ACE_CString::npos) return name;
  return name.substring(0, dot);
}

bool HostNamesEquivalent(const ACE_CString& a, const ACE_CString& b,
                         bool compareFullNames) {
  if (compareFullNames) return ::strcasecmp(a.c_str(), b.c_str()) == 0;
  return ::strcasecmp(FullyQualifiedToBasic(a).c_str(),
                      FullyQualifiedToBasic(b).c_str()) == 0;
}

namespace {

bool IsIpv4(const ACE_CString& address) {
  struct in_addr a;
  return ::inet_pton(AF_INET, address.c_str(), &a) == 1;
}

bool IsIpv6(const ACE_CString& address) {
  struct in6_addr a;
  return ::inet_pton(AF_INET6, address.c_str(), &a) == 1;
}

}  // namespace

bool IsIpAddress(const ACE_CString& address) {
  return IsIpv4(address) || IsIpv6(address);
}

bool IsValidIpAddress(const ACE_CString& address, const ACE_CString& mode) {
  const char* m = mode.c_str();
  const bool dual = ::strcasecmp(m, "Dual") == 0;
  if (IsIpv4(address) && (dual || ::strcasecmp(m, "IPV4") == 0)) return true;
  return IsIpv6(address) && (dual || ::strcasecmp(m, "IPV6") == 0);
}

void SetIPAddressMode(IPAddressMode mode) { g_addressMode = mode; }

IPAddressMode GetIPAddressMode() { return g_addressMode; }

namespace {

ACE_CString SlashForm(const ACE_CString& remoteName) {
  ACE_CString s(remoteName);
  for (size_t i = 0; i < s.length(); ++i) {
    if (s[i] == '\\') s[i] = '/';
  }
  return s;
}

// What is mounted on `folder` now (the top mount): 0 when nothing is,
// kAlreadyRemembered when it is this share, kAlreadyAssigned otherwise.
int MountedThere(const ACE_CString& folder, const ACE_CString& share) {
  char real[PATH_MAX];
  if (::realpath(folder.c_str(), real) == nullptr) return 0;
  struct libmnt_table* table =
      ::mnt_new_table_from_file("/proc/self/mountinfo");
  if (table == nullptr) return 0;
  int answer = 0;
  struct libmnt_iter* it = ::mnt_new_iter(MNT_ITER_BACKWARD);
  struct libmnt_fs* fs = nullptr;
  while (it != nullptr && ::mnt_table_next_fs(table, it, &fs) == 0) {
    const char* target = ::mnt_fs_get_target(fs);
    if (target == nullptr || std::strcmp(target, real) != 0) continue;
    const char* source = ::mnt_fs_get_source(fs);
    answer = source != nullptr && ::strcasecmp(source, share.c_str()) == 0
                 ? osnetwork_internal::kAlreadyRemembered
                 : osnetwork_internal::kAlreadyAssigned;
    break;
  }
  ::mnt_free_iter(it);
  ::mnt_unref_table(table);
  return answer;
}

std::string ServerAddress(const ACE_CString& host) {
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* results = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &results) != 0) return "";
  char text[NI_MAXHOST] = "";
  if (::getnameinfo(results->ai_addr, results->ai_addrlen, text, sizeof text,
                    nullptr, 0, NI_NUMERICHOST) != 0) {
    text[0] = '\0';
  }
  ::freeaddrinfo(results);
  return text;
}

// The share call: 0, kAlreadyAssigned, kAlreadyRemembered or an errno.
int AddConnection(const RemoteMountInfo& info) {
  const ACE_CString share = SlashForm(info.remoteName);
  const int already = MountedThere(info.localName, share);
  if (already != 0) return already;
  std::string options = "username=";
  options += info.userName.c_str();
  options += ",password=";
  options += info.password.c_str();
  const std::string ip = ServerAddress(osnetwork_internal::ServerHost(
      osnetwork_internal::RemoteServerPart(info.remoteName)));
  if (!ip.empty()) options += ",ip=" + ip;
  if (::mount(share.c_str(), info.localName.c_str(), "cifs", 0,
              options.c_str()) == 0) {
    return 0;
  }
  return errno == EBUSY ? osnetwork_internal::kAlreadyAssigned : errno;
}

}  // namespace

int Mount(const RemoteMountInfo& info) {
  if (osnetwork_internal::IsRemoteResourceActive(info.remoteName) != 0) {
    COM_LOG(
        (LM_ERROR, "OSNetwork::Mount: Unable to access remote resource.\n"));
    return -1;
  }
  return osnetwork_internal::MountOutcome(AddConnection(info), info);
}

}  // namespace Kelvane
