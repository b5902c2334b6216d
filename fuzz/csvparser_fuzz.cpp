// Quoted comma-separated values from arbitrary bytes. The input is cut at
// its first NUL, as the parser reads C strings.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/base/csvparser.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size heap copy, so a read past the terminator is caught.
  std::string text(reinterpret_cast<const char*>(data), size);
  char* exact = static_cast<char*>(std::malloc(text.size() + 1));
  std::copy(text.c_str(), text.c_str() + text.size() + 1, exact);

  CSVParser parser(exact);
  std::vector<ACE_CString> all;
  const int rc = parser.ParseAllValues(all);
  Check(rc == 0 || rc == -1);

  // Stepping by hand gives the same values; and every value is shorter
  // than the text it came from.
  parser.Reset();
  std::vector<ACE_CString> stepped;
  ACE_CString value;
  int step;
  while ((step = parser.GetNextValue(value)) == 0) {
    Check(value.length() < text.size());
    stepped.push_back(value);
  }
  Check(step == (rc == 0 ? 1 : -1));
  Check(stepped == all);

  // Writing the values back out quoted and reading them again round-trips
  // whenever they hold no NUL.
  if (rc == 0) {
    std::string line;
    for (const ACE_CString& v : all) {
      line += '"';
      for (size_t i = 0; i < v.length(); ++i) {
        if (v[i] == '"') line += '"';
        line += v[i];
      }
      line += "\",";
    }
    CSVParser again(line.c_str());
    std::vector<ACE_CString> reread;
    Check(again.ParseAllValues(reread) == 0);
    Check(reread == all);
  }
  std::free(exact);
  return 0;
}
