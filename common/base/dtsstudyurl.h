// DTSStudyURL: where one copy of a study is stored, as a "dts://" URL
//
//   dts://<host>?p=<path>&t=<type>&v=<version>&ts=<timestamp>&n=<equivalence>
//               &gs=<0|1>[&suid=<uid>][&pid=<patient id>][&etag=<etag>]
//               [<unknown parameters as they arrived>]
//
// with the parameters in exactly this order. The timestamp is written in
// BDateTime's ToString() form ("03/15/2024 14:30:05.0250"). No value is
// escaped: a value holding '&' or '=' gives a URL that does not parse back
// to the same fields, and callers must not put such characters in values.
//
// Parsing accepts the scheme in any case, takes keys without regard to case
// ("p"/"path", "s"/"suid", "v"/"version", "t", "ts", "n", "gs", "pid",
// "etag") and keeps any other item verbatim, in arrival order, for the next
// generation: "&key=value", or "&item" for an item without '=' (an empty
// item is kept as "&", so "p=x&&t=1" and "p=x&" both keep one "&"). The host is
// always lower case, the entity tag too. Every failure throws BadlyFormedUrl
// with a fixed text (the kXxx constants below) and leaves the object as it was.
//
// Number conversions are those of the C runtime the format was made with:
// "t" reads like atoi (saturating at the int range, so "t=-1" gives
// 4294967295, which prints back as "-1"), "n" like _atoi64 (saturating at
// the signed 64-bit range: an equivalence value above 2^63-1 parses back as
// 2^63-1, a negative one wraps to a large unsigned value), "gs" is true for
// any non-zero number.
//
// The static members at the end pick the gold copy among locations and
// detect copies that have diverged (see selectGoldLocation and
// detectMergeCondition).
//
//   DTSStudyURL u("DTS://Node7?p=/data/stack&t=8&suid=1.2.3");
//   u.path();    // "/data/stack"
//   u.host();    // "node7"
//   u.url();     // the text as given
//   u.ETAG("ABC");  // u.url() is now "dts://node7?p=/data/stack&t=8&v=&ts=
//                   //   ...&n=0&gs=0&suid=1.2.3&etag=abc"
//
// Thread safety: a value type; distinct objects may be used from any
// thread. Generating a URL without a host reads the local host name
// (Kelvane::GetHostName).
#ifndef COM_COMMON_BASE_DTSSTUDYURL_H_
#define COM_COMMON_BASE_DTSSTUDYURL_H_

#include <exception>
#include <string>
#include <vector>

#include <ace/Basic_Types.h>
#include <ace/SString.h>
#include <ace/Thread_Mutex.h>

#include "common/base/bdatetime.h"
#include "common/base/comexport.h"
#include "common/base/smartptr.h"

// The kind of server that holds a copy. The values are bits; 66 and 270 are
// composites on purpose (64 + 2 and 256 + 8 + 4 + 2), and 64 and 256 have
// no member of their own. "Has bit m" means (type & m) != 0.
enum ModuleType {
  VESTRA = 1,
  DICOM_PROCESSING = 2,
  ENTERPRISE_IMAGE_DISTRIBUTION = 3,
  CACHE = 4,
  ARCHIVE = 8,
  CACHE_FILTER = 16,
  ARCHIVE_MIRROR = 32,
  INTEGRATION = 66,
  INFRASTRUCTURE = 128,
  SINGLE_SERVER_KORVEN = 270,
  UDM_STORAGE_SERVER = 512,
  UDM_APP_SERVER = 1024,
  UDM_PREP_STORAGE = 8192
};

// A malformed study URL or an unresolvable host; what() gives the text.
class COM_EXPORT BadlyFormedUrl : public std::exception {
 public:
  explicit BadlyFormedUrl(const char* message);
  const char* what() const noexcept override;

 private:
  std::string message_;
};

class COM_EXPORT DTSStudyURL {
 public:
  static constexpr const char kNoHostname[] = "unable to determine hostname!";
  static constexpr const char kInvalidPath[] = "invalid path specification!";
  static constexpr const char kNotDtsUrl[] = "Not a dts URL specification";
  static constexpr const char kMissingParameters[] =
      "Missing parameters in dts URL specification";
  static constexpr const char kDirectPathname[] =
      "Direct pathname found in dts URL specification";
  static constexpr const char kPortNumber[] =
      "Port number specification found in dts URL";
  static constexpr const char kMissingPath[] = "Missing path specification";
  static constexpr const char kUnresolvable[] =
      "unable to resolve ipaddress for given hostname!";

  typedef Kelvane::SmartPtr<std::vector<DTSStudyURL>,
                            Kelvane::BasicDelete<std::vector<DTSStudyURL>>,
                            ACE_Thread_Mutex>
      LocationGroup;
  typedef std::vector<LocationGroup> LocationGroups;

  // Every text empty, numbers 0, timestamp invalid, no URL yet: a target
  // for the selection functions below and for assignment.
  DTSStudyURL();
  // parseURL(url).
  explicit DTSStudyURL(const ACE_CString& url);
  // parseParams(params, host): the fields of a query text ("p=...&t=...")
  // and a host (empty: the local host name), then the URL built from them.
  DTSStudyURL(const ACE_CString& params, const ACE_CString& host);
  // generateURL with the same arguments.
  DTSStudyURL(const ACE_CString& path, const ACE_CString& host,
              const ACE_CString& suid, unsigned type,
              const ACE_CString& patientId, ACE_UINT64 equivalenceValue,
              const BDateTime& timestamp, bool goldServerOverride,
              const ACE_CString& etag);
  DTSStudyURL(const DTSStudyURL& other);
  DTSStudyURL& operator=(const DTSStudyURL& other);

  // Sets the fields and rebuilds the URL "dts://" host "?" encodeParams().
  //  - host: the given one, or when empty the local host name
  //    (Kelvane::GetHostName, not fully qualified); lower-cased. Failing
  //    to read it throws kNoHostname.
  //  - an empty path throws kInvalidPath (checked after the host).
  //  - suid and patientId are stored only when not empty: empty arguments
  //    keep the values already held, so they cannot be cleared this way.
  //  - etag is stored lower-cased; the version and the unknown parameters
  //    are kept.
  // Nothing changes when it throws.
  void generateURL(const ACE_CString& path, const ACE_CString& host,
                   const ACE_CString& suid, unsigned type,
                   const ACE_CString& patientId, ACE_UINT64 equivalenceValue,
                   const BDateTime& timestamp, bool goldServerOverride,
                   const ACE_CString& etag);

  // The query text in the fixed order shown at the top; throws
  // kInvalidPath when the path is empty. allParams() is the same text.
  ACE_CString encodeParams() const;
  ACE_CString allParams() const;

  // Reads a whole URL. Checked in this order, each failure throwing its
  // text: the scheme "dts://" in any case (kNotDtsUrl), a '?' after it
  // (kMissingParameters), no '/' in the host part (kDirectPathname), no ':'
  // in it (kPortNumber), then parseParams. On success url() is the given
  // text unchanged.
  void parseURL(const ACE_CString& url);
  // Reads the query items (see the top of this file). Parameters that are
  // absent take their defaults: version "", timestamp BDateTime::Now(),
  // the other texts "", the numbers 0, gs false, no unknown parameters. A
  // missing or empty path throws kMissingPath; an empty host is replaced by
  // the local host name (kNoHostname when that fails). The path is then cut
  // back with StackUtils::extractStackPath (".../stack/0042/1.2" gives
  // ".../stack"). url() becomes the URL generated from the result.
  void parseParams(const ACE_CString& params, const ACE_CString& host);

  const ACE_CString& url() const { return url_; }
  const ACE_CString& host() const { return host_; }
  const ACE_CString& path() const { return path_; }
  const ACE_CString& suid() const { return suid_; }
  const ACE_CString& patientId() const { return patientId_; }
  unsigned type() const { return type_; }
  const BDateTime& timestamp() const { return timestamp_; }
  const ACE_CString& version() const { return version_; }
  const ACE_CString& ETAG() const { return etag_; }
  ACE_UINT64 equivalenceValue() const { return equivalenceValue_; }
  bool goldServerOverride() const { return goldServerOverride_; }
  const ACE_CString& otherParams() const { return otherParams_; }
  ACE_CString GetPath() const { return path_; }

  // Each sets its field, then calls generateURL with all current values,
  // so url() stays current and the rules of generateURL apply: suid("")
  // and patientId("") keep the old value, host("") takes the local host
  // name, path("") throws kInvalidPath (and changes nothing).
  void path(const ACE_CString& value);
  void suid(const ACE_CString& value);
  void patientId(const ACE_CString& value);
  void type(unsigned value);
  void timestamp(const BDateTime& value);
  void host(const ACE_CString& value);
  void ETAG(const ACE_CString& value);
  void equivalenceValue(ACE_UINT64 value);

  // The text of a module type: "VESTRA", "DICOM_PROCESSING", ... for the
  // enumerated values, "UNSET" for any other (64 or 6, say).
  static void convertModuleTypeToString(ModuleType type, ACE_CString& out);

  // The numeric address of host() through getaddrinfo (any family): the
  // first result decides, an IPv4 one in dotted form, an IPv6 one in its
  // numeric text with the scope ("fe80::1%eth0"); "" when no result is of
  // either family. A failed look-up throws kUnresolvable.
  ACE_CString ipaddress() const;

  // ---------------------------------------------------- copies of a study
  // Locations are given in the caller's order; "has bit m" is type & m.

  // Counts the locations whose type has any bit of `mask` and copies the
  // first of them into `found` (untouched when the count is 0). Any mask
  // value may be passed, e.g. static_cast<ModuleType>(6).
  static unsigned long checkForStudyOnModuleType(
      DTSStudyURL& found, ModuleType mask,
      const std::vector<DTSStudyURL>& locations);

  // The gold copy: the first location in list order that has bit 512
  // (UDM storage), else bit 8 (archive, 270 included), else 16, 1024, 4,
  // and finally 2 (66 and 270 included). goldServerOverride is not
  // consulted. False, with `gold` untouched, when no mask matches.
  static bool selectGoldLocation(DTSStudyURL& gold,
                                 const std::vector<DTSStudyURL>& locations);

  // In every group, a stable partition: the locations whose type has bit
  // 2 first, then the others, each part in its previous order.
  static void sortMergeLocations(LocationGroups& groups);

  // Groups copies that are equivalent and tells whether more than one
  // group results (the study must be merged). With fewer than two
  // locations: false and nothing added. Otherwise the locations without an
  // entity tag are sorted by equivalence value and those with one by tag
  // text, ascending (stable sorts: equal keys keep the caller's order);
  // each run of equal equivalence values, then each run of equal tags,
  // becomes one new group appended to `groups`; sortMergeLocations(groups)
  // follows, over every group of the list. A location without an entity tag and
  // one with a tag never share a group. True when more than one group was
  // formed by this call.
  static bool detectMergeCondition(const std::vector<DTSStudyURL>& locations,
                                   LocationGroups& groups);
  // Clears `representatives`, groups `locations` as above into a fresh
  // list and, when the result is true, appends the first location of
  // every group, in group order. Returns the same result.
  static bool detectMergeCondition(std::vector<DTSStudyURL>& representatives,
                                   std::vector<DTSStudyURL>& locations);

 private:
  void Regenerate();
  // The fields of the query text [p, end) and `host` into this fresh
  // object; throws as parseParams does. url_ is left alone.
  void ReadQuery(const char* p, const char* end, const ACE_CString& host);
  void Swap(DTSStudyURL& other);

  ACE_CString url_;
  ACE_CString host_;
  ACE_CString path_;
  ACE_CString suid_;
  unsigned type_;
  ACE_UINT64 equivalenceValue_;
  ACE_CString otherParams_;
  ACE_CString version_;
  BDateTime timestamp_;
  bool goldServerOverride_;
  ACE_CString patientId_;
  ACE_CString etag_;
};

#endif  // COM_COMMON_BASE_DTSSTUDYURL_H_
