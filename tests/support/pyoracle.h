// Runs a Python script under the system interpreter (/usr/bin/python3, where
// python3-pydicom lives) over input lines, and returns its output lines.
// Tests use it to compute expected results with an independent
// implementation. Lines must not contain '\n'.
#ifndef COM_TESTS_SUPPORT_PYORACLE_H_
#define COM_TESTS_SUPPORT_PYORACLE_H_

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "support/tempfolder.h"

namespace comtest {

constexpr const char kPython[] = "/usr/bin/python3";

// True when the interpreter runs and can import `module`.
inline bool PythonHas(const char* module) {
  std::string cmd =
      std::string(kPython) + " -c 'import " + module + "' >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// Runs `script` with `input` on its standard input (one line each); fills
// `output` with its standard output lines. False (with the reason in `why`)
// when the script cannot run or exits non-zero.
inline bool RunPython(const std::string& script,
                      const std::vector<std::string>& input,
                      std::vector<std::string>& output, std::string& why) {
  testsupport::TempFolder dir;
  std::string const py = dir.path() + "/oracle.py";
  std::string const in = dir.path() + "/input.txt";
  {
    std::ofstream(py, std::ios::binary) << script;
    std::ofstream f(in, std::ios::binary);
    for (const std::string& line : input) f << line << '\n';
  }
  std::string const cmd = std::string(kPython) + " " + py + " < " + in;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) {
    why = "popen failed";
    return false;
  }
  output.clear();
  std::string line;
  int c = 0;
  while ((c = std::fgetc(p)) != EOF) {
    if (c == '\n') {
      output.push_back(line);
      line.clear();
    } else {
      line += static_cast<char>(c);
    }
  }
  int const status = pclose(p);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    why = "python3 failed with status " + std::to_string(status);
    return false;
  }
  return true;
}

}  // namespace comtest

#endif  // COM_TESTS_SUPPORT_PYORACLE_H_
