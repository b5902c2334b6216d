#include "support/runas.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

bool RunUnprivileged(const std::function<std::string()>& fn,
                     std::string* result) {
  int fds[2] = {-1, -1};
  pid_t pid = -1;
  if (pipe(fds) != 0 || (pid = fork()) < 0) {
    *result = std::string("pipe/fork: ") + std::strerror(errno);
    if (fds[0] >= 0) {
      close(fds[0]);
      close(fds[1]);
    }
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
    for (size_t done = 0; done < text.size();) {
      ssize_t n = write(fds[1], text.data() + done, text.size() - done);
      if (n <= 0) _exit(4);
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  result->clear();
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
    result->append(buf, n);
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
