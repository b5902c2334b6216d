#include "common/base/publisher.h"

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

typedef Publisher<int, char*, std::less<int>> IntPublisher;

// Appends "<name>:<key>:<value>" for each notification to a shared log.
class Tap : public Subscriber<int, char*> {
 public:
  Tap(const char* name, std::vector<std::string>* log)
      : name_(name), log_(log) {}
  void notify(const int& key, char* const& value) override {
    log_->push_back(std::string(name_) + ":" + std::to_string(key) + ":" +
                    value);
  }

 private:
  const char* name_;
  std::vector<std::string>* log_;
};

struct Op {
  enum Kind { kSub, kUnsub, kPub } kind;
  int key;
  int tap;  // index into the taps (ignored for kPub)
  bool result;
};

TEST(Publisher, Table) {
  char text[] = "v";
  const struct {
    const char* what;
    std::vector<Op> ops;
    std::vector<std::string> log;
  } rows[] = {
      {"nobody subscribed", {{Op::kPub, 1, 0, false}}, {}},
      {"only the subscribed keys",
       {{Op::kSub, 1, 0, true},
        {Op::kSub, 2, 0, true},
        {Op::kPub, 1, 0, true},
        {Op::kPub, 3, 0, false},
        {Op::kPub, 2, 0, true}},
       {"a:1:v", "a:2:v"}},
      {"subscription order within a key",
       {{Op::kSub, 5, 1, true},
        {Op::kSub, 4, 2, true},
        {Op::kSub, 5, 0, true},
        {Op::kSub, 5, 2, true},
        {Op::kPub, 5, 0, true}},
       {"b:5:v", "a:5:v", "c:5:v"}},
      {"twice subscribed, twice called; one unsubscribe removes one",
       {{Op::kSub, 1, 0, true},
        {Op::kSub, 1, 0, true},
        {Op::kPub, 1, 0, true},
        {Op::kUnsub, 1, 0, true},
        {Op::kPub, 1, 0, true},
        {Op::kUnsub, 1, 0, true},
        {Op::kPub, 1, 0, false},
        {Op::kUnsub, 1, 0, false}},
       {"a:1:v", "a:1:v", "a:1:v"}},
      {"unsubscribe under another key",
       {{Op::kSub, 1, 0, true},
        {Op::kUnsub, 2, 0, false},
        {Op::kUnsub, 1, 1, false},
        {Op::kPub, 1, 0, true}},
       {"a:1:v"}},
      {"unsubscribe takes the earliest registration",
       {{Op::kSub, 1, 0, true},
        {Op::kSub, 1, 1, true},
        {Op::kSub, 1, 0, true},
        {Op::kUnsub, 1, 0, true},
        {Op::kPub, 1, 0, true}},
       {"b:1:v", "a:1:v"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::string> log;
    Tap taps[] = {{"a", &log}, {"b", &log}, {"c", &log}};
    IntPublisher pub;
    for (const Op& op : row.ops) {
      bool result = false;
      switch (op.kind) {
        case Op::kSub:
          result = pub.subscribe(op.key, &taps[op.tap]);
          break;
        case Op::kUnsub:
          result = pub.unsubscribe(op.key, &taps[op.tap]);
          break;
        case Op::kPub:
          result = pub.publish(op.key, text);
          break;
      }
      EXPECT_EQ(op.result, result) << "op on key " << op.key;
    }
    EXPECT_EQ(row.log, log);
  }
}

// A subscriber that publishes another key and subscribes on the same thread:
// the lock is recursive.
class Relay : public Subscriber<int, char*> {
 public:
  Relay(IntPublisher* pub, Subscriber<int, char*>* late)
      : pub_(pub), late_(late) {}
  void notify(const int& key, char* const& value) override {
    if (key == 1) {
      pub_->publish(2, value);
      pub_->subscribe(3, late_);
    }
  }

 private:
  IntPublisher* pub_;
  Subscriber<int, char*>* late_;
};

TEST(Publisher, SubscriberPublishesAnotherKey) {
  std::vector<std::string> log;
  Tap two("two", &log), late("late", &log);
  IntPublisher pub;
  Relay relay(&pub, &late);
  pub.subscribe(1, &relay);
  pub.subscribe(2, &two);
  char text[] = "x";
  EXPECT_TRUE(pub.publish(1, text));
  EXPECT_TRUE(pub.publish(3, text));
  EXPECT_EQ((std::vector<std::string>{"two:2:x", "late:3:x"}), log);
}

// Any ordered key with its own ordering, and any value type.
struct NoCase {
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};

class Sum : public Subscriber<std::string, std::pair<int, int>> {
 public:
  void notify(const std::string&, const std::pair<int, int>& v) override {
    total += v.first * v.second;
  }
  int total = 0;
};

TEST(Publisher, OtherKeyAndValueTypesUseTheGivenOrdering) {
  Publisher<std::string, std::pair<int, int>, NoCase> pub;
  Sum sum;
  pub.subscribe("Volume", &sum);
  EXPECT_TRUE(pub.publish("VOLUME", std::make_pair(6, 7)));
  EXPECT_FALSE(pub.publish("volumes", std::make_pair(1, 1)));
  EXPECT_TRUE(pub.unsubscribe("volume", &sum));
  EXPECT_EQ(42, sum.total);
}

class Counter : public Subscriber<int, char*> {
 public:
  void notify(const int&, char* const&) override {
    // Not atomic: the publisher's lock serialises every notify.
    ++count;
  }
  long count = 0;
};

TEST(Publisher, ThreadsPublishAndSubscribeTogether) {
  IntPublisher pub;
  Counter steady;
  pub.subscribe(0, &steady);
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  std::vector<Counter> churned(kThreads);
  std::vector<std::thread> threads;
  char text[] = "t";
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        pub.subscribe(t + 1, &churned[t]);
        pub.publish(0, text);
        pub.publish(t + 1, text);
        pub.unsubscribe(t + 1, &churned[t]);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(kThreads * kRounds, steady.count);
  for (const Counter& c : churned) EXPECT_EQ(kRounds, c.count);
  EXPECT_FALSE(pub.publish(1, text));
}

}  // namespace
