// Runs a Python script under /usr/bin/python3 (where python3-pydicom lives)
// over input lines and returns its output lines: expected results from an
// independent implementation. Lines must not contain '\n'.
#ifndef COM_TESTS_SUPPORT_PYORACLE_H_
#define COM_TESTS_SUPPORT_PYORACLE_H_

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

// Runs `script` with `input` on its standard input, one line each, and fills
// `output` with its standard output lines. False, with the reason in `why`,
// when the script cannot run or exits non-zero.
inline bool RunPython(const std::string& script,
                      const std::vector<std::string>& input,
                      std::vector<std::string>& output, std::string& why) {
  testsupport::TempFolder dir;
  std::string const py = dir.path() + "/oracle.py";
  std::string const in = dir.path() + "/input.txt";
  std::string const out = dir.path() + "/output.txt";
  std::ofstream(py, std::ios::binary) << script;
  {
    std::ofstream f(in, std::ios::binary);
    for (const std::string& line : input) f << line << '\n';
  }
  std::string const cmd =
      std::string(kPython) + " " + py + " < " + in + " > " + out;
  int const status = std::system(cmd.c_str());
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    why = "python3 failed with status " + std::to_string(status);
    return false;
  }
  std::ifstream f(out, std::ios::binary);
  output.clear();
  for (std::string line; std::getline(f, line);) output.push_back(line);
  return true;
}

}  // namespace comtest

#endif  // COM_TESTS_SUPPORT_PYORACLE_H_
