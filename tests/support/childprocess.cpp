#include "support/childprocess.h"

#include <chrono>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testsupport {

const char* ChildProgram() { return COM_TEST_CHILD; }

ChildProcess::~ChildProcess() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);  // a test that stopped half-way
  Finish();
  if (out_ >= 0) ::close(out_);
}

bool ChildProcess::Start(const std::vector<std::string>& argv) {
  int toChild[2], fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0)
    return false;  // a test failing here anyway: the ends are left open
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  std::vector<char*> args;
  for (const std::string& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  int rc =
      ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  in_ = toChild[1];
  out_ = fromChild[0];
  if (rc != 0) pid_ = -1;
  return rc == 0;
}

bool ChildProcess::Send(const std::string& line) {
  std::string data = line + "\n";
  return ::write(in_, data.data(), data.size()) ==
         static_cast<ssize_t>(data.size());
}

bool ChildProcess::ReadLine(std::string* line, int timeoutMs) {
  auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    size_t nl = buffer_.find('\n');
    if (nl != std::string::npos) {
      *line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      return true;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) return false;
    pollfd p{out_, POLLIN, 0};
    int r = ::poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    char buf[256];
    ssize_t n = ::read(out_, buf, sizeof buf);
    if (n <= 0) return false;
    buffer_.append(buf, static_cast<size_t>(n));
  }
}

std::string ChildProcess::Ask(const std::string& line) {
  std::string answer;
  return Send(line) && ReadLine(&answer) ? answer : "(no answer)";
}

int ChildProcess::Finish() {
  if (in_ >= 0) ::close(in_);
  in_ = -1;
  int status = 0;
  if (pid_ <= 0 || ::waitpid(pid_, &status, 0) != pid_) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace testsupport
