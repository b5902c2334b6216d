#include "common/base/publisher.h"

#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A subscriber that runs a function of the key and value.
template <typename K, typename V>
class Fn : public Subscriber<K, V> {
 public:
  explicit Fn(std::function<void(const K&, const V&)> f) : f_(std::move(f)) {}
  void notify(const K& key, const V& value) override { f_(key, value); }

 private:
  std::function<void(const K&, const V&)> f_;
};
typedef Fn<int, char*> IntFn;
typedef Publisher<int, char*, std::less<int>> IntPublisher;

// A subscriber that appends " <name><key><value>" to `log`.
IntFn Tap(const std::string& name, std::string* log) {
  return IntFn([=](const int& key, char* const& value) {
    *log += " " + name + std::to_string(key) + value;
  });
}

// Each row runs a script on taps a, b and c: "+1a" subscribes a to key 1,
// "-1a" unsubscribes it, "p1" publishes "v" under key 1; a trailing "!"
// expects false, else true. Then the taps' log is as given.
TEST(Publisher, Table) {
  const struct {
    const char* script;
    const char* log;
  } rows[] = {
      {"+1a +2a p1 p3! p2", " a1v a2v"},       // only subscribed keys
      {"+5b +4c +5a +5c p5", " b5v a5v c5v"},  // subscription order
      {"+1a +1a p1 -1a p1 -1a p1! -1a!", " a1v a1v a1v"},  // once per entry
      {"+1a -2a! -1b! p1", " a1v"},        // unsubscribe under another key
      {"+1a +1b +1a -1a p1", " b1v a1v"},  // the earliest entry goes
  };
  char text[] = "v";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    std::string log;
    std::vector<IntFn> taps = {Tap("a", &log), Tap("b", &log), Tap("c", &log)};
    IntPublisher pub;
    std::istringstream script(row.script);
    for (std::string op; script >> op;) {
      const int key = op[1] - '0';
      IntFn* tap = op[0] == 'p' ? nullptr : &taps[op[2] - 'a'];
      const bool result = op[0] == '+'   ? pub.subscribe(key, tap)
                          : op[0] == '-' ? pub.unsubscribe(key, tap)
                                         : pub.publish(key, text);
      EXPECT_EQ(op.back() != '!', result) << op;
    }
    EXPECT_EQ(row.log, log);
  }
}

// A subscriber that publishes another key and subscribes on the same thread
// (the lock is recursive); keys match through the given ordering.
TEST(Publisher, ReentrantCallsAndTheGivenOrdering) {
  std::string log;
  IntPublisher pub;
  IntFn two = Tap("two", &log), late = Tap("late", &log);
  IntFn relay([&](const int&, char* const& v) {
    pub.publish(2, v);
    pub.subscribe(3, &late);
  });
  pub.subscribe(1, &relay);
  pub.subscribe(2, &two);
  char text[] = "x";
  EXPECT_TRUE(pub.publish(1, text));
  EXPECT_TRUE(pub.publish(3, text));
  EXPECT_EQ(" two2x late3x", log);

  struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const {
      return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
  };
  Publisher<std::string, int, NoCase> named;
  int total = 0;
  Fn<std::string, int> sum(
      [&](const std::string&, const int& v) { total += v; });
  named.subscribe("Volume", &sum);
  EXPECT_TRUE(named.publish("VOLUME", 42));
  EXPECT_FALSE(named.publish("volumes", 1));
  EXPECT_EQ(42, total);
}

// Threads subscribe, publish and unsubscribe at once; the counts are plain
// longs: the publisher's lock serialises every notify.
TEST(Publisher, ThreadsPublishAndSubscribeTogether) {
  constexpr int kThreads = 4, kRounds = 20000;
  IntPublisher pub;
  long counts[kThreads + 1] = {};  // by key
  IntFn counter([&](const int& key, char* const&) { ++counts[key]; });
  pub.subscribe(0, &counter);
  std::vector<std::thread> threads;
  char text[] = "t";
  for (int t = 1; t <= kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        pub.subscribe(t, &counter);
        pub.publish(0, text);
        pub.publish(t, text);
        pub.unsubscribe(t, &counter);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(kThreads * kRounds, counts[0]);
  for (int t = 1; t <= kThreads; ++t) EXPECT_EQ(kRounds, counts[t]);
}

}  // namespace
