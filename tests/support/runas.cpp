#include "support/runas.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

bool RunUnprivileged(const std::function<std::string()>& fn,
                     std::string* result) {
  int fds[2];
  if (pipe(fds) != 0) {
    *result = std::string("pipe: ") + std::strerror(errno);
    return false;
  }
  pid_t pid = fork();
  if (pid < 0) {
    *result = std::string("fork: ") + std::strerror(errno);
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    close(fds[0]);
    if (geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
         setresuid(65534, 65534, 65534) != 0)) {
      _exit(3);
    }
    std::string text = fn();
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
      ssize_t n = write(fds[1], p, left);
      if (n <= 0) _exit(4);
      p += n;
      left -= static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  result->clear();
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) result->append(buf, n);
  close(fds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    *result = "child failed, status " + std::to_string(status);
    return false;
  }
  return true;
}

}  // namespace testsupport
