// Sets TZ (and calls tzset()) for the life of the object, then puts the
// previous value back. Tests that depend on the local zone use one per test.
#ifndef COM_TESTS_SUPPORT_SCOPEDTZ_H_
#define COM_TESTS_SUPPORT_SCOPEDTZ_H_

#include <cstdlib>
#include <ctime>
#include <string>

namespace comtest {

class ScopedTZ {
 public:
  explicit ScopedTZ(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTZ() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ScopedTZ(const ScopedTZ&) = delete;
  ScopedTZ& operator=(const ScopedTZ&) = delete;

 private:
  bool had_ = false;
  std::string old_;
};

}  // namespace comtest

#endif  // COM_TESTS_SUPPORT_SCOPEDTZ_H_
