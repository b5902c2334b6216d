#include "common/base/observermanager.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <ace/Guard_T.h>

#include "common/base/comlog.h"
#include "common/base/internal/singletonlock.h"

// One registered observable: its subscribers and the lock that serialises
// its posts. Held by the manager's table (one reference) and by every post
// that has to wait for the entry lock (one each), and deleted by whoever
// lets go of it last, so a post never holds the manager lock while it
// waits. A post that gets the lock at once takes no reference: the table's
// reference is only dropped under the entry lock, and while this thread is
// delivering on the entry, the outermost delivery drops it on the way out.
struct alignas(64) ObserverManager::Entry {  // no line shared between two
  ACE_Recursive_Thread_Mutex lock;
  // Under `lock`.
  std::map<Observer*, unsigned int> subscribers;
  std::vector<Observer*> order;  // the keys of `subscribers`, ascending
  unsigned long changes = 0;     // bumped whenever `subscribers` changes
  bool gone = false;             // the observable has detached
  int posting = 0;               // deliveries running (one thread, nested)
  bool drop_on_exit = false;     // the table's reference, left to them
  std::atomic<int> refs{1};

  void Changed() {
    order.clear();
    for (const auto& s : subscribers) order.push_back(s.first);
    ++changes;
  }
};

// A slice of the registered observables, found by address hash. The stripe
// lock is a leaf: nothing else is taken or waited for while it is held.
struct alignas(64) ObserverManager::Stripe {
  std::mutex mu;
  std::vector<std::pair<Observable*, Entry*>> slots;
};

// The manager lock, counting how deep this thread holds it so that
// LockEntry knows whether letting go of it once really frees it.
class ObserverManager::ManagerGuard {
 public:
  explicit ManagerGuard(ObserverManager* m) : m_(m) {
    m_->lock_.acquire();
    ++m_->depth_;
  }
  ~ManagerGuard() {
    --m_->depth_;
    m_->lock_.release();
  }
  ManagerGuard(const ManagerGuard&) = delete;
  ManagerGuard& operator=(const ManagerGuard&) = delete;

 private:
  ObserverManager* m_;
};

namespace {

constexpr int kStripeBits = 8;
constexpr std::size_t kStripes = std::size_t{1} << kStripeBits;
constexpr std::size_t kInlineSubscribers = 8;

std::size_t StripeOf(const void* p) {
  const std::uint64_t x = reinterpret_cast<std::uintptr_t>(p);
  return static_cast<std::size_t>((x * 0x9E3779B97F4A7C15ull) >>
                                  (64 - kStripeBits));
}

std::atomic<ObserverManager*> g_instance{nullptr};

}  // namespace

ObserverManager* ObserverManager::Instance() {
  ObserverManager* m = g_instance.load(std::memory_order_acquire);
  if (m != nullptr) return m;

  // ACE has no singleton lock to give only during its own start-up and
  // shutdown; a private lock still keeps the creation single then.
  static std::mutex fallback;
  ACE_Thread_Mutex* ace_lock = Kelvane::internal::SingletonLock();
  std::unique_lock<std::mutex> fallback_guard(fallback, std::defer_lock);
  if (ace_lock != nullptr) {
    ace_lock->acquire();
  } else {
    fallback_guard.lock();
  }
  m = g_instance.load(std::memory_order_relaxed);
  if (m == nullptr) {
    m = new ObserverManager;
    g_instance.store(m, std::memory_order_release);
  }
  if (ace_lock != nullptr) ace_lock->release();
  return m;
}

ObserverManager::ObserverManager()
    : trace_(false), depth_(0), stripes_(new Stripe[kStripes]) {}

void ObserverManager::TraceOn() { trace_.store(true); }

void ObserverManager::TraceOff() { trace_.store(false); }

void ObserverManager::Unref(Entry* e) {
  if (e->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete e;
}

void ObserverManager::IndexInsert(Observable* o, Entry* e) {
  Stripe& s = stripes_[StripeOf(o)];
  std::lock_guard<std::mutex> guard(s.mu);
  for (auto& slot : s.slots) {
    if (slot.first == o) {
      slot.second = e;
      return;
    }
  }
  s.slots.emplace_back(o, e);
}

void ObserverManager::IndexErase(Observable* o) {
  Stripe& s = stripes_[StripeOf(o)];
  std::lock_guard<std::mutex> guard(s.mu);
  for (auto& slot : s.slots) {
    if (slot.first == o) {
      slot = s.slots.back();
      s.slots.pop_back();
      return;
    }
  }
}

// Called with the manager lock held. Returns o's entry with its lock held as
// well, or null (o unknown: a null entry is then in the table). While other
// threads deliver o's events their handlers may need the manager lock, so
// the manager lock is let go while waiting, unless this thread holds it
// further out and cannot.
ObserverManager::Entry* ObserverManager::LockEntry(Observable* o) {
  for (;;) {
    Entry* e = observables_[o];
    if (e == nullptr) return nullptr;
    if (e->lock.tryacquire() == 0) return e;
    if (depth_ > 1) {
      e->lock.acquire();
      return e;
    }
    e->refs.fetch_add(1, std::memory_order_relaxed);
    --depth_;
    lock_.release();
    e->lock.acquire();
    lock_.acquire();
    ++depth_;
    if (!e->gone && observables_[o] == e) {
      e->refs.fetch_sub(1, std::memory_order_relaxed);  // the table keeps one
      return e;
    }
    e->lock.release();
    Unref(e);
  }
}

// o's entry with its lock held, or null. Registered observables are found
// through the stripes without the manager lock; an unknown address goes to
// the manager's table, which keeps a null entry for it. `referenced` tells
// whether a reference was taken (the entry was busy and had to be waited
// for outside the stripe and manager locks).
ObserverManager::Entry* ObserverManager::LockForPost(Observable* o,
                                                     bool* referenced) {
  Entry* e = nullptr;
  {
    Stripe& s = stripes_[StripeOf(o)];
    std::lock_guard<std::mutex> guard(s.mu);
    for (const auto& slot : s.slots) {
      if (slot.first == o) {
        e = slot.second;
        break;
      }
    }
    if (e != nullptr) {
      *referenced = e->lock.tryacquire() != 0;
      if (!*referenced) return e;
      e->refs.fetch_add(1, std::memory_order_relaxed);
    }
  }
  if (e == nullptr) {
    ManagerGuard guard(this);
    e = observables_[o];
    if (e == nullptr) return nullptr;
    e->refs.fetch_add(1, std::memory_order_relaxed);
    *referenced = true;
  }
  e->lock.acquire();
  return e;
}

// Called with the manager lock and e's lock held, once e has left the
// table: the table's reference goes now, or when this thread's deliveries
// on e have unwound.
void ObserverManager::DropTableReference(Entry* e) {
  if (e->posting > 0) {
    e->drop_on_exit = true;
    e->lock.release();
    return;
  }
  e->lock.release();
  Unref(e);
}

// Called with e's lock held.
void ObserverManager::Deliver(Observable* o, Entry* e, unsigned int event,
                              void* data, bool trace) {
  if (e->gone) return;
  // Handlers may subscribe and unsubscribe on this thread: walk a copy, and
  // once the table has changed, call only those still subscribed.
  const std::size_t n = e->order.size();
  Observer* local[kInlineSubscribers];
  std::unique_ptr<Observer*[]> heap;
  Observer** snapshot = local;
  if (n > kInlineSubscribers) {
    heap.reset(new Observer*[n]);
    snapshot = heap.get();
  }
  std::copy(e->order.begin(), e->order.end(), snapshot);
  const unsigned long seen = e->changes;
  for (std::size_t i = 0; i < n; ++i) {
    Observer* w = snapshot[i];
    if (e->changes != seen) {
      if (e->gone) break;
      if (e->subscribers.find(w) == e->subscribers.end()) continue;
    }
    if (trace) COM_LOG((LM_DEBUG, "  ->%s\n", w->GetpName()));
    w->HandleEvent(o, event, data);
  }
}

void ObserverManager::RegisterObservable(Observable* o) {
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG(
        (LM_DEBUG, "ObserverManager::RegisterObservable(%s)\n", o->GetpName()));
  }
  ManagerGuard guard(this);
  // A previous entry for this address is retired as a detaching observable's
  // is, once the posts running on it are done (without their goodbye).
  Entry* old = LockEntry(o);
  Entry* fresh = new Entry;
  observables_[o] = fresh;
  IndexInsert(o, fresh);
  if (old != nullptr) {
    old->gone = true;
    ++old->changes;
    DropTableReference(old);
  }
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "  %d Observables Registered\n",
             static_cast<int>(observables_.size())));
  }
}

void ObserverManager::RegisterObserver(Observable* o, Observer* w,
                                       unsigned int mask) {
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "ObserverManager::RegisterObserver(%s,%s,%d)\n",
             o->GetpName(), w->GetpName(), mask));
  }
  ManagerGuard guard(this);
  Entry* e = LockEntry(o);
  if (e == nullptr) return;
  auto inserted = e->subscribers.emplace(w, 0u);
  inserted.first->second |= mask;
  if (inserted.second) e->Changed();
  observers_[w].insert(o);
  e->lock.release();
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "  %d Observers Registered\n",
             static_cast<int>(observers_.size())));
  }
}

bool ObserverManager::Responds(Observer* w, Observable* o, unsigned int mask) {
  ManagerGuard guard(this);
  Entry* e = LockEntry(o);
  if (e == nullptr) return false;
  auto inserted = e->subscribers.emplace(w, 0u);
  if (inserted.second) e->Changed();
  const bool responds = (inserted.first->second & mask) != 0;
  e->lock.release();
  return responds;
}

bool ObserverManager::HasObserver(Observable* o) {
  ManagerGuard guard(this);
  Entry* e = LockEntry(o);
  if (e == nullptr) return false;
  const bool any = !e->subscribers.empty();
  e->lock.release();
  return any;
}

void ObserverManager::PostEvent(Observable* o, unsigned int event, void* data) {
  const bool trace = trace_.load(std::memory_order_relaxed);
  if (trace) {
    COM_LOG((LM_DEBUG, "ObserverManager::PostEvent(%s,%d)\n", o->GetpName(),
             event));
  }
  bool referenced = false;
  Entry* e = LockForPost(o, &referenced);
  if (e == nullptr) return;
  ++e->posting;
  Deliver(o, e, event, data, trace);
  const bool drop = --e->posting == 0 && e->drop_on_exit;
  e->lock.release();  // e may be gone from here on, unless referenced
  if (referenced) Unref(e);
  if (drop) Unref(e);
}

void ObserverManager::PostEvent(Observable* o, unsigned int event, Observer* w,
                                void* data) {
  ManagerGuard guard(this);
  if (observers_.find(w) == observers_.end()) return;
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "ObserverManager::PostEvent(%s,%d,%s)\n", o->GetpName(),
             event, w->GetpName()));
  }
  w->HandleEvent(o, event, data);
}

void ObserverManager::ObservableDetaching(Observable* o) {
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "ObserverManager::ObservableDetaching(%s)\n",
             o->GetpName()));
  }
  ManagerGuard guard(this);
  Entry* e = LockEntry(o);
  if (e == nullptr) return;

  // The goodbye handlers run under the entry lock only (where this thread
  // can let go of the manager lock), as posts do: they may call the manager
  // and post elsewhere while other threads register and detach.
  const std::vector<Observer*> snapshot(e->order);
  const unsigned long seen = e->changes;
  const bool let_go = depth_ == 1;
  if (let_go) {
    --depth_;
    lock_.release();
  }
  for (Observer* w : snapshot) {
    if (e->changes != seen && e->subscribers.count(w) == 0) continue;
    w->HandleEvent(o, 0, nullptr);
  }
  if (let_go) {
    lock_.acquire();
    ++depth_;
  }
  for (const auto& s : e->subscribers) {
    auto watched = observers_.find(s.first);
    if (watched != observers_.end()) watched->second.erase(o);
  }
  e->gone = true;
  ++e->changes;
  observables_.erase(o);
  IndexErase(o);
  DropTableReference(e);
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "  %d Observables Registered\n",
             static_cast<int>(observables_.size())));
  }
}

void ObserverManager::ObserverDetaching(Observer* w) {
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG(
        (LM_DEBUG, "ObserverManager::ObserverDetaching(%s)\n", w->GetpName()));
  }
  ManagerGuard guard(this);
  // A copy: LockEntry may let go of the manager lock, and the set with it.
  const std::set<Observable*> watched = observers_[w];
  for (Observable* o : watched) {
    auto now = observers_.find(w);
    if (now == observers_.end() || now->second.count(o) == 0) continue;
    Entry* e = LockEntry(o);
    if (e == nullptr) continue;
    if (e->subscribers.erase(w) != 0) e->Changed();
    e->lock.release();
  }
  observers_.erase(w);
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "  %d Observers Registered\n",
             static_cast<int>(observers_.size())));
  }
}

void ObserverManager::ObserverDetaching(Observer* w, Observable* o) {
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "ObserverManager::ObserverDetaching(%s, %s)\n",
             w->GetpName(), o->GetpName()));
  }
  ManagerGuard guard(this);
  Entry* e = LockEntry(o);
  if (e != nullptr) {
    if (e->subscribers.erase(w) != 0) e->Changed();
    e->lock.release();
  }
  std::set<Observable*>& watched = observers_[w];
  if (watched.size() != 1) {
    watched.erase(o);
  } else {
    observers_.erase(w);  // whichever observable the one element is
  }
  if (trace_.load(std::memory_order_relaxed)) {
    COM_LOG((LM_DEBUG, "  %d Observers Registered\n",
             static_cast<int>(observers_.size())));
  }
}
