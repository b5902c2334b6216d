#include "support/runas.h"

#include <grp.h>
#include <unistd.h>

#include "support/forked.h"

namespace testsupport {

bool RunUnprivileged(const std::function<std::string()>& fn,
                     std::string* result) {
  return RunInChild(
      [&] {
        if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 ||
                                 ::setresgid(65534, 65534, 65534) != 0 ||
                                 ::setresuid(65534, 65534, 65534) != 0)) {
          ::_exit(3);
        }
        return fn();
      },
      result);
}

}  // namespace testsupport
