// Network utilities of the local host: its name (or a configured virtual
// name), its addresses, the hardware addresses of its adapters, host-name
// and address helpers, and the connection of a remote share.
//
// Linux choices, written here because the rules were made for another
// system:
//  - The sockets layer needs no start-up or shut-down.
//  - The computer name that GetHostName falls back on is uname(2)'s
//    nodename; the resolver is getaddrinfo(3) (with AI_CANONNAME for the
//    fully qualified name) and getnameinfo(3), so /etc/hosts and
//    /etc/nsswitch.conf apply.
//  - Adapters are the AF_PACKET entries of getifaddrs(3), in its order
//    (interface index order).
//  - A share is mounted with mount(2), file system type "cifs", on the
//    mount-point folder given as localName; remoteName "\\server\share" (or
//    "//server/share") is passed as "//server/share" with the options
//    "username=...,password=...,ip=<server address>". The connection is not
//    recorded anywhere (no fstab entry), like a non-persistent connection.
//    A password or user name holding ',' cannot be passed this way.
//  - The two "already connected" answers of the original share call have
//    these counterparts, found before mount(2) is called by looking up the
//    top mount on the mount-point folder in /proc/self/mountinfo:
//      85 (local device already assigned): the folder is already a mount
//         point of another source, or mount(2) fails with EBUSY;
//      1202 (device already remembered): the folder already holds a mount
//         whose source is this share (separators and case ignored).
//    Both still return 0 with their warning.
//  - The server check before mounting asks the server's SMB port: a TCP
//    connection to port 445 of the server (5 seconds at most per address).
//    A refused, unreachable or timed-out connection is "network path not
//    found" and is retried every 20 seconds while the process's reactor
//    runs; a server name that does not resolve, or a socket that cannot be
//    made, is any other error and fails at once. The error text of its log
//    lines ("OSNetwork::IsRemoteResourceActive: Error: %s; remote host isn't
//    available\n" at error the first time, at debug after that) is
//    strerror(3) of the connection error ("Connection refused"), or
//    gai_strerror(3) of the failed look-up.
//
// Thread safety: every function may be called from any thread. The virtual
// host name and the address mode are plain process-wide settings without a
// lock: set them during start-up, before other threads ask for names or
// addresses.
//
//   ACE_CString name;
//   if (Kelvane::GetHostName(name, true) == 0) ... name ...  // "node7.lab"
//   std::vector<ACE_CString> macs;
//   Kelvane::GetMacAddresses(macs);                         // "02-1A-..."
#ifndef COM_COMMON_OS_OSNETWORK_H_
#define COM_COMMON_OS_OSNETWORK_H_

#include <vector>

#include <ace/SString.h>

#include "common/base/comexport.h"

namespace Kelvane {

enum IPAddressMode { IPV4 = 0, IPV6 = 1, Dual = 2 };

// One share to connect.
struct COM_EXPORT RemoteMountInfo {
  ACE_CString localName;   // the mount-point folder
  ACE_CString remoteName;  // "\\server\share" (or "//server/share")
  ACE_CString userName;
  ACE_CString password;
};

// The host's name, lower-cased. With a virtual host name set, that name
// (lower-cased) whatever the flag. Otherwise gethostname(2) (uname's
// nodename if that fails; -1 if both fail); with `fullyQualified` the
// canonical name that the resolver gives for it. An empty host name, or a
// failed look-up, returns -1 with errno set (EAGAIN for a temporary
// resolver failure, ENOMEM, the system's errno, else ENOENT: not found).
COM_EXPORT int GetHostName(ACE_CString& name, bool fullyQualified);

// The name GetHostName reports from now on; "" reports the host's own
// name again.
COM_EXPORT void setVirtualHostName(const ACE_CString& name);

// The name that `address` resolves to (getnameinfo with NI_NAMEREQD on the
// first result of getaddrinfo). "" when the text cannot be resolved to an
// address. Deliberate quirk, kept from the original: when the address has
// no name, the name request is repeated at once, for ever, so the call
// never returns. Callers ask only for hosts they know to have a name.
COM_EXPORT ACE_CString GetHostNameFromIp(const ACE_CString& address);

// One address of this host, by the address mode: the host name is
// resolved (getaddrinfo, any family) and the results walked in order.
//  - IPV4: the last IPv4 result, dotted ("" when there is none).
//  - IPV6 and Dual: the first IPv6 result in numeric form with its scope,
//    but only when at least two IPv6 results came back; with fewer, the
//    IPv4 answer, which these modes never keep, so "". The threshold of
//    two is deliberate.
// 0, with `address` untouched when the host name cannot be read or
// resolved. -1 when an IPv6 result cannot be turned into text; then
// "Error value: %d" with the resolver's code goes to standard output.
COM_EXPORT int GetLocalIPAddress(ACE_CString& address);

// Appends the address text of every interface address that
// ACE::get_ip_interfaces reports, in its order ("127.0.0.1", "fd00::1").
// 0; -1 after logging "ACE::get_ip_interfaces failed: <error>" at error.
COM_EXPORT int GetLocalIPAddresses(std::vector<ACE_CString>& addresses);

// Appends, per adapter in getifaddrs order, the first six bytes of its
// hardware address as "%02X-%02X-%02X-%02X-%02X-%02X" (17 characters,
// e.g. "02-1A-2B-3C-4D-5E"; the loopback adapter gives
// "00-00-00-00-00-00"), whatever the address length. `addresses` is not
// cleared. 0, or -1 with errno when the adapters cannot be read.
COM_EXPORT int GetMacAddresses(std::vector<ACE_CString>& addresses);

// With `compareFullNames` the names compared whole, else their parts
// before the first '.'; case ignored either way. ("Alpha",
// "alpha.lab.local") is true without the flag and false with it.
COM_EXPORT bool HostNamesEquivalent(const ACE_CString& a, const ACE_CString& b,
                                    bool compareFullNames);

// The text before the first '.', or the whole name: "host.example.org"
// gives "host", and "10.1.2.3" gives "10" (addresses are not special).
COM_EXPORT ACE_CString FullyQualifiedToBasic(const ACE_CString& name);

// True when inet_pton reads the text as IPv4 or else as IPv6.
COM_EXPORT bool IsIpAddress(const ACE_CString& address);

// True for an IPv4 address under "IPV4" or "Dual", or an IPv6 address
// under "IPV6" or "Dual" (the mode text compared ignoring case). An
// unknown mode text makes every address invalid.
COM_EXPORT bool IsValidIpAddress(const ACE_CString& address,
                                 const ACE_CString& mode);

// The mode GetLocalIPAddress follows (IPV4 until set).
COM_EXPORT void SetIPAddressMode(IPAddressMode mode);
COM_EXPORT IPAddressMode GetIPAddressMode();

// Connects the share (see the top of this file). First the server must
// answer on its SMB port: while it cannot be reached the call keeps
// retrying every 20 seconds, running the process's reactor event loop
// (ACE_Reactor::instance()) in between, so this thread's timers and
// handlers go on; it needs that reactor to be usable from this thread
// (otherwise it simply waits). Then:
//  - a server that cannot be checked: "OSNetwork::Mount: Unable to access
//    remote resource.\n" at error, -1;
//  - mounted: "OSNetwork::Mount: Connection added; <remoteName>\n" at
//    notice, 0;
//  - folder already a mount point of another source (85): "OSNetwork::
//    Mount: Local drive letter already assigned, using the same;
//    <localName>\n" at warning, 0;
//  - folder already holding this share (1202): "OSNetwork::Mount: Device
//    already remembered; <remoteName>\n" at warning, 0;
//  - any other failure (ENOENT for a missing folder, ENODEV without cifs
//    support, EPERM without privilege): "OSNetwork::Mount error: %m\n" at
//    error, -1 with errno set.
COM_EXPORT int Mount(const RemoteMountInfo& info);

}  // namespace Kelvane

#endif  // COM_COMMON_OS_OSNETWORK_H_
