// Helpers the concurrency tests share: waiting for a condition with a
// deadline, finding a log record, the text of a thrown exception.
#ifndef COM_TESTS_SUPPORT_WAITFOR_H_
#define COM_TESTS_SUPPORT_WAITFOR_H_

#include <chrono>
#include <string>
#include <thread>

#include "support/logcapture.h"

namespace testsupport {

// Polls `done` every millisecond until it holds (true) or `limit` has
// passed (false).
template <typename Pred>
bool WaitFor(Pred done,
             std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Whether `log` holds a record of priority `p` with exactly `text`.
inline bool Logged(const LogCapture& log, ACE_Log_Priority p,
                   const std::string& text) {
  for (const auto& r : log.records())
    if (r.priority == p && r.text == text) return true;
  return false;
}

// The what() of the E that f() throws, or "no exception".
template <typename E, typename F>
std::string Thrown(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace testsupport

#endif  // COM_TESTS_SUPPORT_WAITFOR_H_
