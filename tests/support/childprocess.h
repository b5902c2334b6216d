// A child process driven line by line through its stdin and stdout, for
// tests that need a second, real process.
#ifndef COM_TESTS_SUPPORT_CHILDPROCESS_H_
#define COM_TESTS_SUPPORT_CHILDPROCESS_H_

#include <string>
#include <sys/types.h>
#include <vector>

namespace testsupport {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills a child still running and reaps it
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts argv[0] with the given arguments; false on failure.
  bool Start(const std::vector<std::string>& argv);
  pid_t pid() const { return pid_; }
  bool Send(const std::string& line);
  // The next line without its newline; false on end of output or when
  // nothing arrives within `timeoutMs`.
  bool ReadLine(std::string* line, int timeoutMs = 10000);
  // Sends `line` and returns the answer, or "(no answer)".
  std::string Ask(const std::string& line);
  // Closes the child's stdin and returns its exit status (-1 if killed).
  int Finish();

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string buffer_;
};

// The test helper program built beside the tests.
const char* ChildProgram();

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_CHILDPROCESS_H_
