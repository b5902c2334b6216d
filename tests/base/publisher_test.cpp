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

typedef Publisher<int, char*, std::less<int>> IntPublisher;

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

// Each row runs a script of operations on taps a, b and c, which log
// "<tap>:<key>:<value>": "+1a" subscribes a to key 1, "-1a" unsubscribes it,
// "p1" publishes under key 1; a trailing "!" expects false, else true.
TEST(Publisher, Table) {
  const struct {
    const char* what;
    const char* script;
    std::vector<std::string> log;
  } rows[] = {
      {"nobody subscribed", "p1!", {}},
      {"only the subscribed keys", "+1a +2a p1 p3! p2", {"a:1:v", "a:2:v"}},
      {"subscription order within a key",
       "+5b +4c +5a +5c p5",
       {"b:5:v", "a:5:v", "c:5:v"}},
      {"twice subscribed, twice called; one unsubscribe removes one",
       "+1a +1a p1 -1a p1 -1a p1! -1a!",
       {"a:1:v", "a:1:v", "a:1:v"}},
      {"unsubscribe under another key", "+1a -2a! -1b! p1", {"a:1:v"}},
      {"unsubscribe takes the earliest registration",
       "+1a +1b +1a -1a p1",
       {"b:1:v", "a:1:v"}},
  };
  char text[] = "v";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> log;
    std::vector<IntFn> taps;
    for (char name : {'a', 'b', 'c'})
      taps.emplace_back([&log, name](const int& key, char* const& value) {
        log.push_back(std::string(1, name) + ":" + std::to_string(key) + ":" +
                      value);
      });
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

// A subscriber that publishes another key and subscribes on the same thread:
// the lock is recursive.
TEST(Publisher, SubscriberPublishesAnotherKeyAndSubscribes) {
  std::vector<std::string> log;
  IntPublisher pub;
  IntFn two([&](const int&, char* const& v) {
    log.push_back("two:" + std::string(v));
  });
  IntFn late([&](const int&, char* const& v) {
    log.push_back("late:" + std::string(v));
  });
  IntFn relay([&](const int&, char* const& v) {
    pub.publish(2, v);
    pub.subscribe(3, &late);
  });
  pub.subscribe(1, &relay);
  pub.subscribe(2, &two);
  char text[] = "x";
  EXPECT_TRUE(pub.publish(1, text));
  EXPECT_TRUE(pub.publish(3, text));
  EXPECT_EQ((std::vector<std::string>{"two:x", "late:x"}), log);
}

// Any ordered key with its own ordering, and any value type.
TEST(Publisher, OtherKeyAndValueTypesUseTheGivenOrdering) {
  struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const {
      return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
  };
  typedef std::pair<int, int> Pair;
  Publisher<std::string, Pair, NoCase> pub;
  int total = 0;
  Fn<std::string, Pair> sum(
      [&](const std::string&, const Pair& v) { total += v.first * v.second; });
  pub.subscribe("Volume", &sum);
  EXPECT_TRUE(pub.publish("VOLUME", Pair(6, 7)));
  EXPECT_FALSE(pub.publish("volumes", Pair(1, 1)));
  EXPECT_TRUE(pub.unsubscribe("volume", &sum));
  EXPECT_EQ(42, total);
}

// Threads subscribe, publish and unsubscribe at once; the counts are plain
// longs: the publisher's lock serialises every notify.
TEST(Publisher, ThreadsPublishAndSubscribeTogether) {
  constexpr int kThreads = 4, kRounds = 20000;
  IntPublisher pub;
  long steady = 0, churned[kThreads] = {};
  IntFn steadyTap([&](const int&, char* const&) { ++steady; });
  std::vector<IntFn> churnTaps;
  for (int t = 0; t < kThreads; ++t)
    churnTaps.emplace_back([&, t](const int&, char* const&) { ++churned[t]; });
  pub.subscribe(0, &steadyTap);
  std::vector<std::thread> threads;
  char text[] = "t";
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        pub.subscribe(t + 1, &churnTaps[t]);
        pub.publish(0, text);
        pub.publish(t + 1, text);
        pub.unsubscribe(t + 1, &churnTaps[t]);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(kThreads * kRounds, steady);
  for (long c : churned) EXPECT_EQ(kRounds, c);
  EXPECT_FALSE(pub.publish(1, text));
}

}  // namespace
