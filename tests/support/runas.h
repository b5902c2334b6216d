// Runs a piece of a test in a child process under an unprivileged user, so
// permission checks apply even when the suite runs as root.
#ifndef COM_TESTS_SUPPORT_RUNAS_H_
#define COM_TESTS_SUPPORT_RUNAS_H_

#include <functional>
#include <string>

namespace testsupport {

// Forks; the child drops to the "nobody" ids (65534) when it is root, runs
// `fn` and sends its text back. Returns false (with the reason in `*result`)
// when the child could not be run or did not finish normally.
bool RunUnprivileged(const std::function<std::string()>& fn,
                     std::string* result);

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_RUNAS_H_
