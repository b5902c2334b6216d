#include "common/base/observermanager.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <ace/Log_Msg.h>

#include <gtest/gtest.h>

#include "common/base/observable.h"
#include "common/base/observer.h"

#include "support/logcapture.h"
#include "support/waitfor.h"

namespace {

using testsupport::WaitFor;

// Records its events, the last source and data and, given `order`, the order
// observers are called in; `action` runs inside HandleEvent.
class Recorder : public Observer {
 public:
  explicit Recorder(const char* name = "w") : Observer(name) {}
  void HandleEvent(Observable* source, unsigned int event,
                   void* data) override {
    {
      std::lock_guard<std::mutex> guard(mu_);
      events_.push_back(event);
      last_source = source;
      last_data = data;
    }
    if (order != nullptr) order->push_back(this);
    if (action) action(event);
  }
  std::vector<unsigned int> events() const {
    std::lock_guard<std::mutex> guard(mu_);
    return events_;
  }
  std::vector<Observer*>* order = nullptr;
  std::function<void(unsigned int)> action;
  Observable* last_source = nullptr;
  void* last_data = this;

 private:
  mutable std::mutex mu_;
  std::vector<unsigned int> events_;
};

ObserverManager* Manager() { return ObserverManager::Instance(); }

std::vector<std::string> Lines(const testsupport::LogCapture& log,
                               const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& r : log.records())
    if (r.text.compare(0, prefix.size(), prefix) == 0) out.push_back(r.text);
  return out;
}

// Masks accumulate and only answer Responds, which subscribes a stranger
// with mask 0: it then gets every event, and detaching it does not reach
// the entry it was put in.
TEST(ObserverManager, Responds) {
  Observable o("o"), quiet("quiet");
  Recorder w, stranger;
  w.Observe(&o, 1);
  w.Observe(&o, 4);
  for (unsigned int mask : {1u, 4u, 2u}) {
    SCOPED_TRACE(mask);
    EXPECT_EQ((mask & 5u) != 0, Manager()->Responds(&w, &o, mask));
  }
  EXPECT_FALSE(Manager()->Responds(&stranger, &quiet, ~0u));
  EXPECT_TRUE(quiet.HasObserver());
  quiet.PostEvent(3, nullptr);
  Manager()->ObserverDetaching(&stranger);
  quiet.PostEvent(3, nullptr);
  EXPECT_EQ((std::vector<unsigned int>{3, 3}), stranger.events());
  quiet.Detach();  // its goodbye before the stranger goes
  o.Detach();
  EXPECT_FALSE(Manager()->Responds(&w, &o, 1));
}

// Every subscriber is called, in address order (not the order they came
// in), whatever its mask; more of them than the inline snapshot holds.
TEST(ObserverManager, PostCallsEverySubscriberInAddressOrder) {
  Observable o("o");
  std::vector<Recorder> ws(12);
  std::vector<Observer*> order;
  for (size_t i = ws.size(); i-- > 0;) {
    ws[i].order = &order;
    ws[i].Observe(&o, 1u << (i % 3));
  }
  int payload = 0;
  o.PostEvent(42, &payload);
  EXPECT_EQ(ws.size(), order.size());
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_TRUE(ws[5].last_source == &o && ws[5].last_data == &payload);
}

// Quirk: an observer watching one source that detaches from another leaves
// the observer table (the single-observer PostEvent no longer reaches it)
// but stays subscribed until its source's goodbye: event 0 without data.
TEST(ObserverManager, DetachingAndGoodbyes) {
  auto a = std::make_unique<Observable>("a");
  Observable b("b");
  Recorder all, both, only_a;
  for (Recorder* w : {&all, &both}) {
    w->Observe(a.get(), 1);
    w->Observe(&b, 1);
  }
  only_a.Observe(a.get(), 1);
  all.Detach();
  both.Detach(&b);
  only_a.Detach(&b);
  for (Recorder* w : {&all, &both, &only_a})
    Manager()->PostEvent(a.get(), 7, w, nullptr);  // table members only
  a->PostEvent(8, nullptr);
  b.PostEvent(8, nullptr);
  a.reset();
  both.Detach();  // its set is empty: no freed entry is touched
  EXPECT_EQ((std::vector<unsigned int>{}), all.events());
  EXPECT_EQ((std::vector<unsigned int>{7, 8, 0}), both.events());
  EXPECT_EQ((std::vector<unsigned int>{8, 0}), only_a.events());
  EXPECT_EQ(nullptr, only_a.last_data);
}

TEST(ObserverManager, TraceLines) {
  testsupport::LogCapture log;
  Observable o("src");
  Recorder w("sink");
  char created[64];
  std::snprintf(created, sizeof created, "Observable(src)@%X created\n",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&o)));
  EXPECT_EQ(std::vector<std::string>{created}, Lines(log, "Observable("));
  w.Observe(&o, 6);
  o.PostEvent(3, nullptr);
  EXPECT_TRUE(Lines(log, "ObserverManager::").empty());  // trace is off
  Manager()->TraceOn();
  w.Observe(&o, 1);
  o.PostEvent(3, nullptr);
  Manager()->PostEvent(&o, 4, &w, nullptr);
  w.Detach(&o);
  Manager()->TraceOff();
  const std::vector<std::string> expected = {
      "ObserverManager::RegisterObserver(src,sink,1)\n",
      "ObserverManager::PostEvent(src,3)\n",
      "ObserverManager::PostEvent(src,4,sink)\n",
      "ObserverManager::ObserverDetaching(sink, src)\n",
  };
  EXPECT_EQ(expected, Lines(log, "ObserverManager::"));
  const std::vector<std::string> indented = Lines(log, "  ");
  ASSERT_EQ(3u, indented.size());
  EXPECT_EQ("  ->sink\n", indented[1]);
  int before = 0, after = 0;
  EXPECT_EQ(1, std::sscanf(indented[0].c_str(), "  %d Observers", &before));
  EXPECT_EQ(1, std::sscanf(indented[2].c_str(), "  %d Observers", &after));
  EXPECT_EQ(before - 1, after);
}

// A handler detaches itself, destroys another observer or the observable
// during a post: observers gone are skipped, the others still called.
TEST(ObserverManager, HandlersRemovingObserversOrTheObservable) {
  enum Action { kDetachSelf, kDestroyTarget, kDestroyObservable };
  const struct {
    int actor;  // observers are numbered in address order
    Action action;
    int target;
    std::vector<int> calls;  // in both posts, 1 and 2
  } rows[] = {
      {1, kDetachSelf, 0, {0, 1, 2, 0, 2}},
      {0, kDestroyTarget, 1, {0, 2, 0, 2}},
      {0, kDestroyObservable, 0, {0, 0, 1, 2}},  // post 1, then goodbyes
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.actor * 10 + row.action);
    auto* o = new Observable("o");
    std::vector<std::unique_ptr<Recorder>> ws(3);
    for (auto& w : ws) w.reset(new Recorder);
    std::sort(ws.begin(), ws.end());
    const std::vector<Observer*> raw = {ws[0].get(), ws[1].get(), ws[2].get()};
    std::vector<Observer*> order;
    for (auto& w : ws) {
      w->Observe(o, 1);
      w->order = &order;
    }
    ws[row.actor]->action = [&](unsigned int event) {
      if (event != 1) return;
      if (row.action == kDetachSelf) ws[row.actor]->Detach();
      if (row.action == kDestroyTarget) ws[row.target].reset();
      if (row.action == kDestroyObservable) {
        delete o;
        o = nullptr;
      }
    };
    o->PostEvent(1, nullptr);
    if (o != nullptr) o->PostEvent(2, nullptr);
    std::vector<int> calls;
    for (Observer* w : order)
      calls.push_back(
          static_cast<int>(std::find(raw.begin(), raw.end(), w) - raw.begin()));
    EXPECT_EQ(row.calls, calls);
    delete o;
  }
}

// A handler posts (re-entrantly too), observes and detaches on its thread.
TEST(ObserverManager, HandlerMayPostObserveAndDetachOnItsThread) {
  Observable a("a"), b("b");
  Recorder on_b, relay, late;
  on_b.Observe(&b, 1);
  relay.Observe(&a, 1);
  relay.action = [&, depth = 0](unsigned int event) mutable {
    if (depth++ > 0) return;
    b.PostEvent(event + 100, nullptr);
    a.PostEvent(0xFF, nullptr);
    late.Observe(&a, 1);
    late.Detach();
  };
  a.PostEvent(1, nullptr);
  EXPECT_EQ(std::vector<unsigned int>{101}, on_b.events());
  EXPECT_EQ((std::vector<unsigned int>{1, 0xFF}), relay.events());
  EXPECT_TRUE(late.events().empty());
}

// Posters on a few observables while other threads create, subscribe,
// detach and destroy observers and rebuild the observables. No handler runs
// on a destroyed observer or after its Detach() returned.
class Checked : public Observer {
 public:
  static constexpr std::uint32_t kAlive = 0xA11FE;
  Checked() : Observer("checked"), magic_(kAlive) {}
  ~Checked() override {
    Detach();
    magic_ = 0;
  }
  void HandleEvent(Observable* source, unsigned int, void*) override {
    if (magic_ != kAlive || detach_returned_.load()) bad_calls.fetch_add(1);
    // The manager from inside a handler, while others hold it.
    if ((calls.fetch_add(1, std::memory_order_relaxed) & 63) == 0)
      Manager()->HasObserver(source);
  }
  void DetachAll() {
    Detach();
    detach_returned_.store(true);
  }
  static std::atomic<long> calls, bad_calls;

 private:
  volatile std::uint32_t magic_;
  std::atomic<bool> detach_returned_{false};
};
std::atomic<long> Checked::calls{0}, Checked::bad_calls{0};

TEST(ObserverManager, StressPostAttachDetachDestroy) {
  const unsigned long mask = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
  ACE_LOG_MSG->priority_mask(mask & ~static_cast<unsigned long>(LM_DEBUG),
                             ACE_Log_Msg::PROCESS);
  constexpr int kObservables = 4, kPosters = 8, kChurners = 3;
  std::atomic<Observable*> slots[kObservables];
  std::mutex slot_owner[kObservables];  // held by whoever replaces a slot
  for (auto& s : slots) s.store(new Observable("stress"));
  std::atomic<bool> stop{false};
  std::atomic<long> rebuilt{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < kPosters; ++p)
    threads.emplace_back([&, p] {
      for (unsigned int i = p; !stop.load(std::memory_order_relaxed); ++i)
        Manager()->PostEvent(slots[i % kObservables].load(), 1, nullptr);
    });
  for (int c = 0; c < kChurners; ++c)
    threads.emplace_back([&, c] {
      std::mt19937 rng(static_cast<unsigned int>(c));
      while (!stop.load(std::memory_order_relaxed)) {
        const unsigned int roll = rng() % 16;
        if (roll == 0) {
          const int i = static_cast<int>(rng() % kObservables);
          std::lock_guard<std::mutex> own(slot_owner[i]);
          delete slots[i].exchange(new Observable("stress"));
          rebuilt.fetch_add(1);
          continue;
        }
        auto w = std::make_unique<Checked>();
        for (unsigned int k = 0; k <= roll % 3; ++k) {
          const int i = static_cast<int>(rng() % kObservables);
          std::lock_guard<std::mutex> own(slot_owner[i]);
          w->Observe(slots[i].load(), 1u << k);
        }
        std::this_thread::yield();
        if (roll % 2 == 0) w->DetachAll();  // odd rolls: the destructor
      }
    });
  const auto enough =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  const bool churned = WaitFor(
      [&] {
        return std::chrono::steady_clock::now() >= enough &&
               rebuilt.load() >= 10 && Checked::calls.load() > 0;
      },
      std::chrono::seconds(60));
  stop.store(true);
  for (auto& t : threads) t.join();
  for (auto& s : slots) delete s.load();
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
  EXPECT_EQ(0, Checked::bad_calls.load());
  EXPECT_TRUE(churned) << "too little churn within the deadline";
}

}  // namespace
