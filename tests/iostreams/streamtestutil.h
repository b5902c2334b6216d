// Helpers shared by the stream tests: an allocator that records what the
// streams ask of it, and a check of the text a stream failure carries.
#ifndef COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_
#define COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_

#include <functional>
#include <string>
#include <vector>

#include <ace/Malloc_Allocator.h>

#include <gtest/gtest.h>

#include "common/iostreams/streamexceptions.h"

namespace streamtest {

// A real heap allocator that keeps the size of every request, can refuse
// requests from the n-th on, and counts blocks not given back.
class RecordingAllocator : public ACE_New_Allocator {
 public:
  void* malloc(size_t nbytes) override {
    requests.push_back(nbytes);
    if (refuse_from >= 0 && static_cast<int>(requests.size()) > refuse_from) {
      return nullptr;
    }
    ++live;
    return ACE_New_Allocator::malloc(nbytes);
  }
  void free(void* ptr) override {
    if (ptr != nullptr) --live;
    ACE_New_Allocator::free(ptr);
  }

  std::vector<size_t> requests;
  int refuse_from = -1;  // requests past this many fail; -1 never
  int live = 0;
};

inline void ExpectThrows(const char* text, const std::function<void()>& fn) {
  try {
    fn();
    ADD_FAILURE() << "no exception, wanted " << text;
  } catch (const std::exception& e) {
    EXPECT_STREQ(text, e.what());
  }
}

template <typename Stream>
std::string Contents(const Stream& out) {
  return std::string(reinterpret_cast<const char*>(out.Data()), out.CurPos());
}

}  // namespace streamtest

#endif  // COM_TESTS_IOSTREAMS_STREAMTESTUTIL_H_
