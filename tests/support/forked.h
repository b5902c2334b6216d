// Runs a piece of a test in a forked child, for changes that must not reach
// the test process (namespaces, mounts, resource limits), and brings back
// the text the child produced.
#ifndef COM_TESTS_SUPPORT_FORKED_H_
#define COM_TESTS_SUPPORT_FORKED_H_

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

// The text `fn` returned in the child, or "child failed, status N" (or the
// pipe/fork error) when it could not run or did not finish normally. A
// child still running after `deadlineSeconds` is ended by SIGALRM, so a
// hang shows as a failure instead of a stuck test.
inline std::string RunForked(const std::function<std::string()>& fn,
                             unsigned deadlineSeconds = 60) {
  int fds[2];
  if (::pipe(fds) != 0) return std::string("pipe: ") + std::strerror(errno);
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) {
    const std::string why = std::string("fork: ") + std::strerror(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return why;
  }
  if (pid == 0) {
    ::close(fds[0]);
    ::alarm(deadlineSeconds);
    const std::string text = fn();
    for (size_t done = 0; done < text.size();) {
      const ssize_t n = ::write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) ::_exit(4);
      done += static_cast<size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return "child failed, status " + std::to_string(status);
  }
  return text;
}

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_FORKED_H_
