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

namespace {

using Clock = std::chrono::steady_clock;

struct Call {
  Observable* source;
  unsigned int event;
  void* data;
};

// Records every call; an optional action runs inside HandleEvent.
class Recorder : public Observer {
 public:
  explicit Recorder(const char* name) : Observer(name) {}
  void HandleEvent(Observable* source, unsigned int event,
                   void* data) override {
    {
      std::lock_guard<std::mutex> guard(mu_);
      calls_.push_back({source, event, data});
    }
    if (order_ != nullptr) order_->push_back(this);
    if (action_) action_(source, event);
  }
  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> guard(mu_);
    return calls_;
  }
  std::size_t count(unsigned int event) const {
    std::lock_guard<std::mutex> guard(mu_);
    return static_cast<std::size_t>(
        std::count_if(calls_.begin(), calls_.end(),
                      [event](const Call& c) { return c.event == event; }));
  }
  void set_action(std::function<void(Observable*, unsigned int)> action) {
    action_ = std::move(action);
  }
  void set_order(std::vector<Observer*>* order) { order_ = order; }

 private:
  mutable std::mutex mu_;
  std::vector<Call> calls_;
  std::vector<Observer*>* order_ = nullptr;
  std::function<void(Observable*, unsigned int)> action_;
};

ObserverManager* Manager() { return ObserverManager::Instance(); }

// The texts of the records whose text starts with `prefix`.
std::vector<std::string> Lines(const testsupport::LogCapture& log,
                               const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& r : log.records()) {
    if (r.text.compare(0, prefix.size(), prefix) == 0) out.push_back(r.text);
  }
  return out;
}

// The number in the last "  %d <what> Registered\n" trace line.
int LastCount(const testsupport::LogCapture& log, const char* what) {
  int count = -1;
  const std::string suffix = std::string(" ") + what + " Registered\n";
  for (const auto& r : log.records()) {
    int n = 0;
    if (r.text.size() > suffix.size() &&
        r.text.compare(r.text.size() - suffix.size(), suffix.size(), suffix) ==
            0 &&
        std::sscanf(r.text.c_str(), "  %d", &n) == 1) {
      count = n;
    }
  }
  return count;
}

class TraceOn {
 public:
  TraceOn() { Manager()->TraceOn(); }
  ~TraceOn() { Manager()->TraceOff(); }
};

std::string Hex(const void* p) {
  char text[16];
  std::snprintf(text, sizeof text, "%X",
                static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p)));
  return text;
}

template <typename Pred>
bool WaitFor(Pred pred, std::chrono::seconds limit = std::chrono::seconds(10)) {
  const auto deadline = Clock::now() + limit;
  while (!pred()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(ObserverManager, MasksAccumulateAndRespondsAnswersFromThem) {
  Observable o("o");
  Recorder w("w");
  w.Observe(&o, 1);
  w.Observe(&o, 4);
  const struct {
    unsigned int mask;
    bool responds;
  } rows[] = {{1, true},  {4, true},  {5, true},
              {2, false}, {8, false}, {0, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.mask);
    EXPECT_EQ(row.responds, Manager()->Responds(&w, &o, row.mask));
  }
}

TEST(ObserverManager, RespondsSubscribesAStrangerWithMaskZero) {
  Observable o("o");
  Recorder stranger("stranger");
  EXPECT_FALSE(o.HasObserver());
  EXPECT_FALSE(Manager()->Responds(&stranger, &o, ~0u));
  // Now a subscriber: counted, and called for every event.
  EXPECT_TRUE(o.HasObserver());
  o.PostEvent(3, nullptr);
  EXPECT_EQ(1u, stranger.count(3));
  // Detaching does not reach the entry the query made (the observer's own
  // set never held o); leave before o's goodbye reaches a dead observer.
  o.Detach();
  EXPECT_EQ(1u, stranger.count(0));
}

TEST(ObserverManager, RespondsOnUnregisteredObservableIsFalse) {
  Observable o("o");
  Recorder w("w");
  w.Observe(&o, 1);
  o.Detach();
  EXPECT_FALSE(Manager()->Responds(&w, &o, 1));
  EXPECT_FALSE(o.HasObserver());
}

TEST(ObserverManager, PostCallsEverySubscriberInAddressOrderIgnoringMasks) {
  Observable o("o");
  std::vector<std::unique_ptr<Recorder>> ws;
  std::vector<Observer*> order;
  for (int i = 0; i < 12; ++i) {  // more than the inline snapshot holds
    ws.emplace_back(new Recorder("w"));
    ws.back()->set_order(&order);
    ws.back()->Observe(&o, 1u << (i % 3));
  }
  int payload = 0;
  o.PostEvent(42, &payload);
  ASSERT_EQ(ws.size(), order.size());
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  for (const auto& w : ws) {
    ASSERT_EQ(1u, w->calls().size());
    EXPECT_EQ(&o, w->calls()[0].source);
    EXPECT_EQ(42u, w->calls()[0].event);
    EXPECT_EQ(&payload, w->calls()[0].data);
  }
}

TEST(ObserverManager, PostWithoutSubscribersCallsNothing) {
  Recorder bystander("bystander");
  Observable watched("watched");
  bystander.Observe(&watched, 1);
  Observable o("o");
  EXPECT_FALSE(o.HasObserver());
  o.PostEvent(1, nullptr);
  EXPECT_TRUE(bystander.calls().empty());
}

TEST(ObserverManager, UnknownAddressesLeaveNullEntries) {
  testsupport::LogCapture log;
  TraceOn trace;
  // Detached observables: unknown to the manager, yet safe to name in the
  // trace lines.
  std::vector<std::unique_ptr<Observable>> gone;
  const struct {
    const char* what;
    std::function<void(Observable*)> lookup;
  } rows[] = {
      {"post", [](Observable* o) { Manager()->PostEvent(o, 1, nullptr); }},
      {"has observer",
       [](Observable* o) { EXPECT_FALSE(Manager()->HasObserver(o)); }},
      {"responds",
       [](Observable* o) {
         Observer w("w");
         EXPECT_FALSE(Manager()->Responds(&w, o, 1));
       }},
      {"observable detaching",
       [](Observable* o) { Manager()->ObservableDetaching(o); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    gone.emplace_back(new Observable("gone"));
    gone.back()->Detach();
    Observable* unknown = gone.back().get();
    Observable before("before");
    const int registered = LastCount(log, "Observables");
    row.lookup(unknown);
    Observable after("after");
    // `after` plus the null entry left by the lookup.
    EXPECT_EQ(registered + 2, LastCount(log, "Observables"));
  }
}

TEST(ObserverManager, DestroyedObservableSaysGoodbyeOnce) {
  Recorder a("a"), b("b");
  {
    Observable o("o");
    a.Observe(&o, 1);
    a.Observe(&o, 2);
    b.Observe(&o, 4);
    o.Detach();  // the destructor then has nothing left to do
  }
  for (Recorder* w : {&a, &b}) {
    ASSERT_EQ(1u, w->calls().size());
    EXPECT_EQ(0u, w->calls()[0].event);
    EXPECT_EQ(nullptr, w->calls()[0].data);
  }
  // The observers' sets are empty: detaching them touches no freed entry.
  a.Detach();
  EXPECT_EQ(1u, b.calls().size());
}

TEST(ObserverManager, ObserverOutlivingItsObservableIsNotCalledAgain) {
  auto o = std::make_unique<Observable>("o");
  auto w = std::make_unique<Recorder>("w");
  Recorder other("other");
  w->Observe(o.get(), 1);
  other.Observe(o.get(), 1);
  o.reset();
  w.reset();  // must not touch o's entry
  Observable fresh("fresh");
  other.Observe(&fresh, 1);
  fresh.PostEvent(5, nullptr);
  EXPECT_EQ(1u, other.count(5));
}

TEST(ObserverManager, DetachFromOneSourceAndTheSizeOneShortcut) {
  Observable a("a"), b("b");
  // Watching a and b, leaving b: still in the observer table with a.
  Recorder both("both");
  both.Observe(&a, 1);
  both.Observe(&b, 1);
  both.Detach(&b);
  Manager()->PostEvent(&a, 7, &both, nullptr);  // reaches table members only
  EXPECT_EQ(1u, both.count(7));
  a.PostEvent(8, nullptr);
  b.PostEvent(8, nullptr);
  EXPECT_EQ(1u, both.count(8));

  // Watching a only, leaving b it never watched: gone from the observer
  // table, yet still a's subscriber.
  Recorder only_a("only_a");
  only_a.Observe(&a, 1);
  only_a.Detach(&b);
  Manager()->PostEvent(&a, 7, &only_a, nullptr);
  EXPECT_EQ(0u, only_a.count(7));
  a.PostEvent(9, nullptr);
  EXPECT_EQ(1u, only_a.count(9));
  // Detach() no longer finds a in its set: only a's goodbye takes it out.
  only_a.Detach();
  a.PostEvent(10, nullptr);
  EXPECT_EQ(1u, only_a.count(10));
  a.Detach();
  EXPECT_EQ(1u, only_a.count(0));
}

TEST(ObserverManager, DetachedObserverIsNotCalled) {
  Observable a("a"), b("b");
  Recorder w("w");
  w.Observe(&a, 1);
  w.Observe(&b, 1);
  w.Detach();
  a.PostEvent(1, nullptr);
  b.PostEvent(1, nullptr);
  Manager()->PostEvent(&a, 1, &w, nullptr);
  EXPECT_TRUE(w.calls().empty());
  // Observing again attaches it again.
  w.Observe(&a, 1);
  a.PostEvent(2, nullptr);
  EXPECT_EQ(1u, w.count(2));
}

TEST(ObserverManager, TraceLines) {
  testsupport::LogCapture log;
  Observable o("src");
  Recorder w("sink");
  EXPECT_EQ(
      std::vector<std::string>{"Observable(src)@" + Hex(&o) + " created\n"},
      Lines(log, "Observable("));
  EXPECT_EQ(
      std::vector<std::string>{"Observer(sink)@" + Hex(&w) + " created\n"},
      Lines(log, "Observer("));
  w.Observe(&o, 6);
  o.PostEvent(3, nullptr);
  EXPECT_TRUE(Lines(log, "ObserverManager::").empty());
  {
    TraceOn trace;
    w.Observe(&o, 1);
    o.PostEvent(3, nullptr);
    Manager()->PostEvent(&o, 4, &w, nullptr);
    w.Detach(&o);
  }
  const std::vector<std::string> expected = {
      "ObserverManager::RegisterObserver(src,sink,1)\n",
      "ObserverManager::PostEvent(src,3)\n",
      "ObserverManager::PostEvent(src,4,sink)\n",
      "ObserverManager::ObserverDetaching(sink, src)\n",
  };
  EXPECT_EQ(expected, Lines(log, "ObserverManager::"));
  // A count after registering, the call, a count after detaching (the
  // observer watched one source: it leaves the observer table).
  const std::vector<std::string> indented = Lines(log, "  ");
  ASSERT_EQ(3u, indented.size());
  EXPECT_EQ("  ->sink\n", indented[1]);
  int registered = 0, left = 0;
  ASSERT_EQ(1, std::sscanf(indented[0].c_str(), "  %d Observers Registered\n",
                           &registered));
  ASSERT_EQ(1, std::sscanf(indented[2].c_str(), "  %d Observers Registered\n",
                           &left));
  EXPECT_EQ(registered - 1, left);
}

TEST(ObserverManager, ObserverDetachesItselfInsideHandler) {
  Observable o("o");
  Recorder a("a"), b("b"), c("c");
  for (Recorder* w : {&a, &b, &c}) w->Observe(&o, 1);
  b.set_action([&b](Observable*, unsigned int) { b.Detach(); });
  o.PostEvent(1, nullptr);
  o.PostEvent(2, nullptr);
  EXPECT_EQ(1u, b.calls().size());
  for (Recorder* w : {&a, &c}) EXPECT_EQ(2u, w->calls().size());
}

TEST(ObserverManager, HandlerDestroyingAnotherObserverSkipsIt) {
  // Whichever of the two is called first destroys the other; the victim
  // must not be called (a use after free under ASan) if it comes later.
  for (bool killer_first : {true, false}) {
    SCOPED_TRACE(killer_first);
    Observable o("o");
    auto x = std::make_unique<Recorder>("x");
    auto y = std::make_unique<Recorder>("y");
    Recorder* lower = std::min(x.get(), y.get());
    std::unique_ptr<Recorder>& killer =
        (lower == x.get()) == killer_first ? x : y;
    std::unique_ptr<Recorder>& victim = killer == x ? y : x;
    Recorder* victim_raw = victim.get();
    killer->Observe(&o, 1);
    victim->Observe(&o, 1);
    std::vector<Observer*> order;
    killer->set_order(&order);
    victim->set_order(&order);
    killer->set_action(
        [&victim](Observable*, unsigned int) { victim.reset(); });
    o.PostEvent(1, nullptr);
    EXPECT_EQ(nullptr, victim);
    const std::size_t expected = killer_first ? 1 : 2;
    ASSERT_EQ(expected, order.size());
    if (!killer_first) {
      EXPECT_EQ(victim_raw, order[0]);
    }
    o.PostEvent(2, nullptr);
    EXPECT_EQ(2u, killer->calls().size());
  }
}

TEST(ObserverManager, HandlerDestroyingTheObservableEndsTheDelivery) {
  auto* o = new Observable("o");
  Recorder a("a"), b("b");
  a.Observe(o, 1);
  b.Observe(o, 1);
  Recorder* first = std::min(&a, &b);
  Recorder* second = std::max(&a, &b);
  first->set_action([&o](Observable*, unsigned int event) {
    if (event == 1) {
      delete o;
      o = nullptr;
    }
  });
  o->PostEvent(1, nullptr);
  ASSERT_EQ(nullptr, o);
  auto events = [](const Recorder& w) {
    std::vector<unsigned int> out;
    for (const Call& c : w.calls()) out.push_back(c.event);
    return out;
  };
  EXPECT_EQ((std::vector<unsigned int>{1, 0}), events(*first));
  EXPECT_EQ((std::vector<unsigned int>{0}), events(*second));
}

TEST(ObserverManager, HandlerMayPostObserveAndDetachOnItsThread) {
  Observable a("a"), b("b");
  Recorder on_b("on_b"), relay("relay"), late("late");
  on_b.Observe(&b, 1);
  relay.Observe(&a, 1);
  // Re-entrant post of 0xFF must not recurse forever.
  relay.set_action([&, depth = 0](Observable*, unsigned int event) mutable {
    if (depth++ > 0) return;
    b.PostEvent(event + 100, nullptr);
    a.PostEvent(0xFF, nullptr);
    late.Observe(&a, 1);
    EXPECT_TRUE(Manager()->Responds(&late, &a, 1));
    late.Detach();
  });
  a.PostEvent(1, nullptr);
  EXPECT_EQ(1u, on_b.count(101));
  EXPECT_EQ(1u, relay.count(0xFF));
  // `late` joined during a's round: not called in it.
  EXPECT_TRUE(late.calls().empty());
}

TEST(ObserverManager, ObservableDestroyedWhilePostedOnElsewhere) {
  Recorder w("w");
  auto* o = new Observable("o");
  w.Observe(o, 1);
  std::atomic<bool> stop{false};
  std::atomic<long> posts{0};
  Observable* const address = o;
  std::thread poster([&] {
    while (!stop.load()) {
      Manager()->PostEvent(address, 1, nullptr);
      posts.fetch_add(1);
    }
  });
  ASSERT_TRUE(WaitFor([&] { return w.count(1) >= 100; }));
  delete o;
  const long after = posts.load();
  ASSERT_TRUE(WaitFor([&] { return posts.load() > after + 1000; }));
  stop.store(true);
  poster.join();
  const std::vector<Call> calls = w.calls();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(0u, calls.back().event) << "an event came after the goodbye";
  EXPECT_EQ(1u, w.count(0));
}

TEST(ObserverManager, DetachWaitsForRunningHandlerOnAnotherThread) {
  Observable o("o");
  Recorder w("w");
  std::atomic<bool> inside{false}, release{false};
  std::atomic<int> after_detach_calls{0};
  std::atomic<bool> detached{false};
  w.set_action([&](Observable*, unsigned int event) {
    if (detached.load()) after_detach_calls.fetch_add(1);
    if (event == 1) {
      inside.store(true);
      while (!release.load()) std::this_thread::yield();
    }
  });
  w.Observe(&o, 1);
  std::thread poster([&] { o.PostEvent(1, nullptr); });
  ASSERT_TRUE(WaitFor([&] { return inside.load(); }));
  std::thread detacher([&] {
    w.Detach();
    detached.store(true);
  });
  // Detach() cannot return while the handler runs.
  for (int i = 0; i < 1000; ++i) {
    EXPECT_FALSE(detached.load());
    std::this_thread::yield();
  }
  release.store(true);
  poster.join();
  detacher.join();
  o.PostEvent(2, nullptr);
  EXPECT_EQ(0, after_detach_calls.load());
  EXPECT_EQ(0u, w.count(2));
}

// A handler that calls the manager while other threads register and detach
// on the same observable: the manager lock must never be held while waiting
// for the observable's entry lock, or this hangs.
TEST(ObserverManager, HandlersCallingTheManagerRaceRegistrations) {
  Observable a("a"), b("b");
  Recorder busy("busy"), churn("churn");
  busy.set_action([&](Observable*, unsigned int) {
    busy.Observe(&b, 1);
    EXPECT_TRUE(b.HasObserver());
  });
  busy.Observe(&a, 1);
  std::atomic<bool> stop{false};
  std::thread poster([&] {
    while (!stop.load()) a.PostEvent(1, nullptr);
  });
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  int rounds = 0;
  while (rounds < 2000 || busy.count(1) < 500) {
    if (Clock::now() > deadline) {
      ADD_FAILURE() << "the poster made no progress";
      break;
    }
    churn.Observe(&a, 1);
    churn.Detach();
    ++rounds;
  }
  stop.store(true);
  poster.join();
  EXPECT_GE(busy.count(1), 500u);
}

// The stress: posters on a few observables while other threads create,
// subscribe, detach and destroy observers, and destroy and rebuild the
// observables themselves.
class Checked : public Observer {
 public:
  static constexpr std::uint32_t kAlive = 0xA11FE;
  Checked() : Observer("checked"), magic_(kAlive) {}
  ~Checked() override {
    Detach();
    magic_ = 0;
  }
  void HandleEvent(Observable* source, unsigned int, void*) override {
    if (magic_ != kAlive) bad_calls.fetch_add(1);
    if (detach_returned_.load()) late_calls.fetch_add(1);
    calls.fetch_add(1, std::memory_order_relaxed);
    // The manager from inside a handler, while others hold it.
    if ((calls.load(std::memory_order_relaxed) & 63) == 0) {
      Manager()->HasObserver(source);
    }
  }
  void DetachAll() {
    Detach();
    detach_returned_.store(true);
  }
  static std::atomic<long> calls, bad_calls, late_calls;

 private:
  volatile std::uint32_t magic_;
  std::atomic<bool> detach_returned_{false};
};
std::atomic<long> Checked::calls{0}, Checked::bad_calls{0},
    Checked::late_calls{0};

class DebugLinesOff {
 public:
  DebugLinesOff() : mask_(ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS)) {
    ACE_LOG_MSG->priority_mask(mask_ & ~static_cast<unsigned long>(LM_DEBUG),
                               ACE_Log_Msg::PROCESS);
  }
  ~DebugLinesOff() { ACE_LOG_MSG->priority_mask(mask_, ACE_Log_Msg::PROCESS); }

 private:
  unsigned long mask_;
};

TEST(ObserverManager, StressPostAttachDetachDestroy) {
  DebugLinesOff quiet;
  constexpr int kObservables = 4;
  constexpr int kPosters = 8;
  constexpr int kChurners = 3;
  const auto run_for = std::chrono::milliseconds(2500);

  std::atomic<Observable*> slots[kObservables];
  std::mutex slot_owner[kObservables];  // held by whoever replaces a slot
  for (auto& s : slots) s.store(new Observable("stress"));

  std::atomic<bool> stop{false};
  std::atomic<long> posts{0}, observers_made{0}, observables_rebuilt{0};
  std::vector<std::thread> threads;
  for (int p = 0; p < kPosters; ++p) {
    threads.emplace_back([&, p] {
      unsigned int i = static_cast<unsigned int>(p);
      while (!stop.load(std::memory_order_relaxed)) {
        // Possibly freed meanwhile: the manager only looks the address up.
        Manager()->PostEvent(slots[i++ % kObservables].load(), 1, nullptr);
        posts.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  for (int c = 0; c < kChurners; ++c) {
    threads.emplace_back([&, c] {
      std::mt19937 rng(static_cast<unsigned int>(c));
      while (!stop.load(std::memory_order_relaxed)) {
        const unsigned int roll = rng() % 16;
        if (roll == 0) {
          const int i = static_cast<int>(rng() % kObservables);
          std::lock_guard<std::mutex> own(slot_owner[i]);
          Observable* old = slots[i].exchange(new Observable("stress"));
          delete old;
          observables_rebuilt.fetch_add(1);
          continue;
        }
        auto w = std::make_unique<Checked>();
        observers_made.fetch_add(1, std::memory_order_relaxed);
        for (unsigned int k = 0; k <= roll % 3; ++k) {
          const int i = static_cast<int>(rng() % kObservables);
          std::lock_guard<std::mutex> own(slot_owner[i]);
          w->Observe(slots[i].load(), 1u << k);
        }
        std::this_thread::yield();
        if (roll % 2 == 0) w->DetachAll();
        // Odd rolls: the destructor detaches.
      }
    });
  }
  // Run for a while, and at least until every kind of churn has happened.
  const auto start = Clock::now();
  const bool churned = WaitFor(
      [&] {
        return Clock::now() - start >= run_for &&
               observables_rebuilt.load() >= 10 &&
               observers_made.load() >= 100 && Checked::calls.load() > 0;
      },
      std::chrono::seconds(60));
  stop.store(true);
  for (auto& t : threads) t.join();
  for (auto& s : slots) delete s.load();

  EXPECT_EQ(0, Checked::bad_calls.load());
  EXPECT_EQ(0, Checked::late_calls.load());
  EXPECT_TRUE(churned) << "too little churn within the deadline";
  std::printf(
      "stress: %ld posts, %ld handler calls, %ld observers, %ld "
      "observables rebuilt\n",
      posts.load(), Checked::calls.load(), observers_made.load(),
      observables_rebuilt.load());
}

}  // namespace
