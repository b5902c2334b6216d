// DTSStudyURL's parser on arbitrary text. What parses is generated again
// and parsed a second time: the fields must agree, but for the two losses
// of the text forms (an equivalence value above 2^63-1 reads back as
// 2^63-1; a timestamp's milliseconds, printed in four digits, read back as
// a tenth). A failure must be one of the fixed messages.
#include <cinttypes>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/base/dtsstudyurl.h"
#include "common/os/osnetwork.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

std::string S(const ACE_CString& s) {
  return std::string(s.c_str(), s.length());
}

bool KnownMessage(const char* m) {
  const char* known[] = {DTSStudyURL::kNotDtsUrl,
                         DTSStudyURL::kMissingParameters,
                         DTSStudyURL::kDirectPathname, DTSStudyURL::kPortNumber,
                         DTSStudyURL::kMissingPath};
  for (const char* k : known) {
    if (std::strcmp(k, m) == 0) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An empty host takes this name instead of asking the system.
  static const bool named = (Kelvane::setVirtualHostName("FuzzHost"), true);
  (void)named;
  const ACE_CString text(reinterpret_cast<const char*>(data), size);
  DTSStudyURL first;
  try {
    first.parseURL(text);
  } catch (const BadlyFormedUrl& e) {
    Check(KnownMessage(e.what()));
    Check(first.url().length() == 0);  // unchanged
    return 0;
  }
  Check(first.url() == text);
  Check(first.path().length() != 0);

  const ACE_CString again =
      "dts://" + first.host() + "?" + first.encodeParams();
  DTSStudyURL second;
  try {
    second.parseURL(again);
  } catch (const BadlyFormedUrl&) {
    std::abort();
  }
  Check(second.host() == first.host());
  Check(second.path() == first.path());
  Check(second.suid() == first.suid());
  Check(second.patientId() == first.patientId());
  Check(second.type() == first.type());
  Check(second.version() == first.version());
  Check(second.ETAG() == first.ETAG());
  Check(second.goldServerOverride() == first.goldServerOverride());
  Check(second.otherParams() == first.otherParams());
  const ACE_UINT64 n = first.equivalenceValue();
  Check(second.equivalenceValue() ==
        (n > uint64_t{INT64_MAX} ? uint64_t{INT64_MAX} : n));
  const std::string t1 = S(first.timestamp().ToString());
  const std::string t2 = S(second.timestamp().ToString());
  Check(t1.size() >= 5 && t2.size() >= 5 &&
        t1.substr(0, t1.size() - 5) == t2.substr(0, t2.size() - 5));
  if (first.timestamp().GetTime().IsValid()) {
    Check(second.timestamp().GetTime().GetMilliSecond() ==
          first.timestamp().GetTime().GetMilliSecond() / 10);
  }
  // The generated text is stable from the second generation on, but for
  // the milliseconds, which keep shrinking.
  DTSStudyURL third(second.encodeParams(), second.host());
  Check(third.path() == second.path() &&
        third.otherParams() == second.otherParams());
  return 0;
}
