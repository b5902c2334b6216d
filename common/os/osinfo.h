// OSInfo and SystemUtilCommon::OsVersionInfo: the running system's version,
// as a record (OSInfo::GetOSInfoEx) and as comparisons against wanted
// versions (OsVersionInfo).
//
// On Linux "the operating system's version" has two parts, compared
// separately: the kernel release of uname(2) ("6.1.0-18-amd64") and the
// distribution's VERSION_ID of os-release ("12"). A version compares by its
// leading run of dot-separated decimal numbers ("6.1.0" of the release
// above, the "-18-amd64" suffix is ignored), and only over as many numbers
// as the wanted version gives: kernel 6.1.0 equals "6" and "6.1", is at
// least "5.15" and "6.1.0", and below "6.2" and "6.1.1". A wanted version
// that does not start with a digit matches nothing: equal, at least and
// below are all false.
//
// Thread safety: OsVersionInfo is an immutable value. GetOSInfoEx refreshes
// one process-wide record on every call under a lock and returns a copy.
//
// Example:
//   SystemUtilCommon::OsVersionInfo v;
//   if (v.IsKernelBelow("5.6")) { /* no io_uring */ }
//   ACE_CString distro = v.DistributionVersion();  // "12"
#ifndef COM_COMMON_OS_OSINFO_H_
#define COM_COMMON_OS_OSINFO_H_

#include <ace/SString.h>

#include "common/base/comexport.h"

// The version record. The numbers are the kernel's (6, 1, 0 for
// "6.1.0-18-amd64"; 0 for a number the release lacks); the texts are empty
// when the source could not be read.
struct OSVERSIONRECORD {
  unsigned dwMajorVersion;
  unsigned dwMinorVersion;
  unsigned dwBuildNumber;      // the kernel's third number (patch level)
  ACE_CString sysName;         // uname sysname, "Linux"
  ACE_CString release;         // uname release, "6.1.0-18-amd64"
  ACE_CString kernelBuild;     // uname version, "#1 SMP PREEMPT_DYNAMIC ..."
  ACE_CString machine;         // uname machine, "x86_64"
  ACE_CString distributionId;  // os-release ID, "debian"
  ACE_CString distributionVersion;  // os-release VERSION_ID, "12"
  ACE_CString prettyName;           // os-release PRETTY_NAME
  ACE_CString osReleaseText;        // the whole os-release file
};

class COM_EXPORT OSInfo {
 public:
  // The process-wide record, read again from uname(2) and /etc/os-release
  // (or /usr/lib/os-release) on every call. When uname fails the numbers are
  // 0 and the uname texts empty, with a record at LM_ERROR.
  static OSVERSIONRECORD GetOSInfoEx();
};

namespace SystemUtilCommon {

class COM_EXPORT OsVersionInfo {
 public:
  // The running system's kernel release and distribution version.
  OsVersionInfo();
  // Given versions, e.g. a release read from another machine's report.
  OsVersionInfo(const char* kernelRelease, const char* distributionVersion);

  const ACE_CString& KernelRelease() const { return kernel_; }
  const ACE_CString& DistributionVersion() const { return distribution_; }

  bool IsKernelEqual(const char* version) const;
  bool IsKernelAtLeast(const char* version) const;
  bool IsKernelBelow(const char* version) const;
  bool IsDistributionEqual(const char* version) const;
  bool IsDistributionAtLeast(const char* version) const;
  bool IsDistributionBelow(const char* version) const;

 private:
  ACE_CString kernel_;
  ACE_CString distribution_;
};

}  // namespace SystemUtilCommon

#endif  // COM_COMMON_OS_OSINFO_H_
