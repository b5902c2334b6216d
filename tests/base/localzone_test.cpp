#include "common/base/internal/localzone.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using Kelvane::localzone::ResolveLocal;

// A made-up zone: offset `before` until the UTC instant `change`, then
// `after`.
struct OneChange {
  int64_t change;
  int32_t before;
  int32_t after;
  bool operator()(int64_t utc, int32_t& offset) const {
    offset = utc < change ? before : after;
    return true;
  }
};

TEST(LocalZone, ResolveAroundOneChange) {
  int64_t const change = 1000000;
  struct Row {
    const char* what;
    int32_t before, after;
    int64_t local;
    int64_t utc;
  } rows[] = {
      {"steady", 3600, 3600, 50000, 46400},
      // Forward one hour at change (local 1003600 -> 1007200).
      {"before the gap", 3600, 7200, change + 3599, change - 1},
      {"in the gap", 3600, 7200, change + 3600 + 1800, change + 1800},
      {"after the gap", 3600, 7200, change + 7200, change},
      // Back one hour (local 1007200 -> 1003600): first occurrence.
      {"in the overlap", 7200, 3600, change + 5400, change - 1800},
      // Half an hour west of UTC, forward 30 minutes.
      {"west gap", -37800, -36000, change - 37800 + 900, change + 900},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    int64_t utc = 0;
    ASSERT_TRUE(
        ResolveLocal(r.local, OneChange{change, r.before, r.after}, utc));
    EXPECT_EQ(r.utc, utc);
  }
}

TEST(LocalZone, ResolveReportsLookupFailure) {
  int calls = 0;
  auto failing_second = [&calls](int64_t, int32_t& offset) {
    offset = 0;
    return ++calls < 2;
  };
  int64_t utc = 77;
  EXPECT_FALSE(ResolveLocal(0, failing_second, utc));
  EXPECT_EQ(77, utc);
}

TEST(LocalZone, RecordRange) {
  using Kelvane::localzone::Record;
  struct Row {
    Record r;
    bool valid;
  } rows[] = {
      {{1601, 1, 1, 0, 0, 0, 0}, true},
      {{1600, 12, 31, 23, 59, 59, 999}, false},
      {{30827, 12, 31, 23, 59, 59, 999}, true},
      {{30828, 1, 1, 0, 0, 0, 0}, false},
      {{2023, 2, 29, 0, 0, 0, 0}, false},
      {{2024, 1, 1, 23, 59, 59, 1000}, false},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(rows[i].valid, Kelvane::localzone::IsValidRecord(rows[i].r));
  }
  EXPECT_EQ(-11644473600LL,
            Kelvane::localzone::RecordToSeconds({1601, 1, 1, 0, 0, 0, 0}));
}

}  // namespace
