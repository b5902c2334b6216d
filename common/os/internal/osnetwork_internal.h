// The rules of common/os/osnetwork kept apart from the system calls, and
// the server check that Mount runs, for the unit's tests.
#ifndef COM_COMMON_OS_INTERNAL_OSNETWORK_INTERNAL_H_
#define COM_COMMON_OS_INTERNAL_OSNETWORK_INTERNAL_H_

#include <string>
#include <utility>
#include <vector>

#include <ace/SString.h>
#include <ace/Time_Value.h>

#include "common/base/comexport.h"
#include "common/os/osnetwork.h"

namespace osnetwork_internal {

// The answers of the share calls that the logic tells apart.
constexpr int kNetworkPathNotFound = 53;
constexpr int kAlreadyAssigned = 85;
constexpr int kAlreadyRemembered = 1202;

// The server part of a share name: what precedes the first '/' found from
// the third character on, or else the first '\' from there; the whole name
// when there is neither. "//srv/share" gives "//srv", "srv" gives "srv".
COM_EXPORT ACE_CString RemoteServerPart(const ACE_CString& remoteName);

// The host name in a server part: up to two leading separators dropped.
COM_EXPORT ACE_CString ServerHost(const ACE_CString& serverPart);

// The walk of GetLocalIPAddress over resolver results already in text
// form, (family, text) in resolver order: see osnetwork.h.
COM_EXPORT ACE_CString
PickLocalAddress(const std::vector<std::pair<int, std::string>>& results,
                 Kelvane::IPAddressMode mode);

// The log and the result of Mount for the share call's answer `code`: 0,
// kAlreadyAssigned, kAlreadyRemembered, or an errno value.
COM_EXPORT int MountOutcome(int code, const Kelvane::RemoteMountInfo& info);

// The server check of Mount: 0 when the server of `remoteName` accepts a
// connection on port 445; retries while it is unreachable (see osnetwork.h)
// and returns -1 on any other error, logging as it goes.
COM_EXPORT int IsRemoteResourceActive(const ACE_CString& remoteName);

// The wait between two checks (20 seconds unless changed); tests shorten
// it.
COM_EXPORT void SetRetryInterval(const ACE_Time_Value& interval);

}  // namespace osnetwork_internal

#endif  // COM_COMMON_OS_INTERNAL_OSNETWORK_INTERNAL_H_
