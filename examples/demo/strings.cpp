#include <cstdio>
#include <vector>

#include "common/base/stringutils.h"

#include "demo.h"

namespace {

void Strings() {
  ACE_CString line("  PATIENT^JOHN  ");
  Kelvane::EatWhitespaceLR(line);
  std::printf("trimmed name:        '%s'\n", line.c_str());

  std::vector<ACE_CString> parts;
  unsigned n = Kelvane::splitString("1.2.840.10008.5.1.4", ".", parts);
  std::printf("UID components:      %u (root %s.%s)\n", n, parts[0].c_str(),
              parts[1].c_str());

  std::printf("digits of 'AB-12.3c': %s\n",
              Kelvane::removeNonAlphaAndAlphaNumerics("AB-12.3c").c_str());
  const char* files[] = {"image.dcm", "report.txt", "series.DCM"};
  for (const char* f : files) {
    std::printf("'%s' matches '*.dcm': %s\n", f,
                Kelvane::matchesWildcard(f, "*.dcm") ? "yes" : "no");
  }
}

}  // namespace

COM_DEMO_SECTION(10, "String helpers", Strings);
