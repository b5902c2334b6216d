// Runs a piece of a test in a forked child, for changes that must not reach
// the test process (namespaces, mounts, ids, resource limits), and brings
// back the text the child produced.
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

// Forks, runs `fn` in the child and puts its text in `*text`. False, with
// "child failed, status N" (or the pipe/fork error) in `*text`, when the
// child could not run or did not finish normally. A child still running
// after `deadlineSeconds` is ended by SIGALRM, so a hang fails the test.
inline bool RunInChild(const std::function<std::string()>& fn,
                       std::string* text, unsigned deadlineSeconds = 60) {
  int fds[2];
  if (::pipe(fds) != 0) {
    *text = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) {
    *text = std::string("fork: ") + std::strerror(errno);
    ::close(fds[0]);
    ::close(fds[1]);
    return false;
  }
  if (pid == 0) {
    ::close(fds[0]);
    ::alarm(deadlineSeconds);
    const std::string out = fn();
    for (size_t done = 0; done < out.size();) {
      const ssize_t n = ::write(fds[1], out.data() + done, out.size() - done);
      if (n <= 0) ::_exit(4);
      done += static_cast<size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  text->clear();
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
    text->append(buffer, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    *text = "child failed, status " + std::to_string(status);
    return false;
  }
  return true;
}

// The child's text, or why there is none.
inline std::string RunForked(const std::function<std::string()>& fn,
                             unsigned deadlineSeconds = 60) {
  std::string text;
  RunInChild(fn, &text, deadlineSeconds);
  return text;
}

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_FORKED_H_
