#include "common/base/smartptr.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Tracked {
  explicit Tracked(std::atomic<int>* deaths) : deaths(deaths) {}
  virtual ~Tracked() { ++*deaths; }
  int value = 7;
  std::atomic<int>* deaths;
};

struct Derived : Tracked {
  Derived(std::atomic<int>* deaths, std::atomic<int>* derivedDeaths)
      : Tracked(deaths), derivedDeaths(derivedDeaths) {}
  ~Derived() override { ++*derivedDeaths; }
  std::atomic<int>* derivedDeaths;
};

TEST(SmartPtr, NullPointerHasNoCounterAndThrowsOnAccess) {
  Kelvane::SmartPtr<Tracked> empty(nullptr);
  const Kelvane::SmartPtr<Tracked> copy(empty);
  EXPECT_TRUE(copy.isNull() && copy.use_count() == 0);
  EXPECT_THROW((void)copy->value, Kelvane::NullPointerException);
  EXPECT_THROW(empty->value = 1, Kelvane::NullPointerException);
}

TEST(SmartPtr, CopiesShareOneCounterAndTheLastFrees) {
  std::atomic<int> deaths{0};
  {
    Kelvane::SmartPtr<Tracked> a(new Tracked(&deaths)), b(a), c;
    c = b;
    c = c;  // self-assignment keeps the count
    EXPECT_EQ(3, c.use_count());
    b.Release();
    EXPECT_TRUE(b.isNull() && a.use_count() == 2 && deaths == 0);
    // The destructor runs through the base pointer.
    std::atomic<int> derived{0};
    Kelvane::SmartPtr<Tracked> other(new Derived(&deaths, &derived));
    c = other;  // drops c's share of the first object
    EXPECT_EQ(1, a.use_count());
    other.Release();
    c.Release();
    EXPECT_EQ(1, derived.load());
  }
  EXPECT_EQ(2, deaths.load());
}

TEST(SmartPtr, ConcurrentCopiesFreeExactlyOnce) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> deaths{0};
    std::vector<std::thread> threads;
    {
      Kelvane::SmartPtr<Tracked> shared(new Tracked(&deaths));
      for (int t = 0; t < 4; ++t) {
        threads.emplace_back([copy = shared]() mutable {
          for (int i = 0; i < 2000; ++i) {
            Kelvane::SmartPtr<Tracked> local(copy);
            Kelvane::SmartPtr<Tracked> again;
            again = local;
            ASSERT_EQ(7, again->value);
          }
        });
      }
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(1, deaths.load());
  }
}

TEST(AutoPtr, CopyTransfersOwnership) {
  std::atomic<int> deaths{0};
  Kelvane::auto_ptr<Tracked> a(new Tracked(&deaths));
  Kelvane::auto_ptr<Tracked> b(a), c;
  c = b;
  EXPECT_TRUE(a.get() == nullptr && b.get() == nullptr && c.get() != nullptr);
  c.reset(c.get());  // resetting to the held pointer frees nothing
  EXPECT_EQ(0, deaths.load());
  c.reset(c.release());
  c.reset();
  EXPECT_EQ(1, deaths.load());
}

TEST(AutoPtr, ArrayDeleteFreesArrays) {
  // Run under AddressSanitizer, a scalar delete here is reported as a
  // mismatch; the array policy must be used.
  Kelvane::auto_ptr<char, Kelvane::ArrayDelete<char>> buf(new char[32]);
  buf[0] = 'x';
  EXPECT_EQ('x', buf.get()[0]);
}

}  // namespace
