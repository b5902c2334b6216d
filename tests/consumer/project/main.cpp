#include <cstdio>
#include <vector>

#include "common/base/smartptr.h"
#include "common/base/stringutils.h"

int main() {
  std::vector<ACE_CString> parts;
  Kelvane::SmartPtr<ACE_CString> s(new ACE_CString("a,b"));
  if (Kelvane::splitString(*s, ",", parts) != 2) return 1;
  std::printf("consumer ok\n");
  return 0;
}
