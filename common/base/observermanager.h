// The process-wide router between Observables and Observers.
//
// Tables: observable -> entry (the subscribers of that observable, each with
// its accumulated event mask), and observer -> the observables it watches.
// Looking an observable up inserts it when it is missing, with a null entry
// that every operation treats as "not registered" but that counts in the
// "%d Observables Registered" trace line; such entries are never removed.
// Posting calls every subscriber, in ascending order of address, whatever
// its mask. Trace lines ("ObserverManager::...") are logged at LM_DEBUG only
// between TraceOn() and TraceOff(); the manager starts with trace off.
//
// Thread safety: every member may be called from any thread, and from inside
// a handler on the same thread (both kinds of lock are recursive). Events
// of one observable are delivered one post at a time, under that
// observable's entry lock; posts on different observables run in parallel
// and do not take the manager lock unless the observable is unknown.
// Responds, HasObserver and Instance are race-free here: Instance is
// double-checked under ACE's singleton lock, and Responds and HasObserver
// take the manager and entry locks like every other member, so they wait
// while the observable's handlers run. Their results are unchanged, and
// Responds still subscribes an unknown observer with mask 0 (after which it
// receives every event of that observable, and detaching it does not remove
// it there).
//
// Locks: the manager lock is never held while waiting for an entry lock
// (only tried; on failure the manager lock is let go while waiting), so a
// handler may call any member while other threads register and detach.
// Two exceptions remain, as with any two locks taken in opposite orders: a
// handler of observable A posting on B while, on another thread, a handler
// of B posts on A deadlocks; and the handler called by the single-observer
// PostEvent runs under the manager lock, so it must not post on an
// observable whose handlers, on another thread, call the manager.
//
//   ObserverManager* m = ObserverManager::Instance();
//   m->TraceOn();
//   m->PostEvent(&volume, 7, nullptr);  // "ObserverManager::PostEvent(Vol,7)"
#ifndef COM_COMMON_BASE_OBSERVERMANAGER_H_
#define COM_COMMON_BASE_OBSERVERMANAGER_H_

#include <atomic>
#include <map>
#include <set>

#include <ace/Recursive_Thread_Mutex.h>

#include "common/base/comexport.h"
#include "common/base/observable.h"
#include "common/base/observer.h"

class COM_EXPORT ObserverManager {
 public:
  // The manager, created on the first call and never destroyed.
  static ObserverManager* Instance();

  // Gives `o` a new, empty entry, replacing any previous one.
  void RegisterObservable(Observable* o);
  // Subscribes `w` to `o`, OR-ing `mask` into w's mask there. Does nothing
  // if `o` is not registered. Bits are never taken away short of detaching.
  void RegisterObserver(Observable* o, Observer* w, unsigned int mask);
  // Whether w's mask at `o` has a bit of `mask`; false if `o` is not
  // registered. Subscribes `w` with mask 0 if it was not subscribed.
  bool Responds(Observer* w, Observable* o, unsigned int mask);
  // Whether `o` is registered and has at least one subscriber.
  bool HasObserver(Observable* o);
  // Calls HandleEvent(o, event, data) of every subscriber of `o` on this
  // thread, in ascending order of address; nothing if `o` is not registered.
  // Subscribers added by a handler wait for the next post; subscribers
  // removed (or destroyed) by a handler are skipped.
  void PostEvent(Observable* o, unsigned int event, void* data);
  // Calls w->HandleEvent(o, event, data), under the manager lock, if `w` is
  // in the observer table; it need not subscribe to `o`.
  void PostEvent(Observable* o, unsigned int event, Observer* w, void* data);
  // `o` is going away: each subscriber gets HandleEvent(o, 0, nullptr), once,
  // and `o` leaves the subscriber's set; then the entry is deleted. Waits
  // for posts running on `o`; none is delivered afterwards.
  void ObservableDetaching(Observable* o);
  // Unsubscribes `w` from every observable in its set and drops it from the
  // observer table.
  void ObserverDetaching(Observer* w);
  // Unsubscribes `w` from `o`. If w's set has exactly one element, `w` is
  // dropped from the observer table whatever that element is; otherwise `o`
  // is removed from the set.
  void ObserverDetaching(Observer* w, Observable* o);

  void TraceOn();
  void TraceOff();

 private:
  struct Entry;
  struct Stripe;
  class ManagerGuard;

  ObserverManager();
  ~ObserverManager() = delete;
  ObserverManager(const ObserverManager&) = delete;
  ObserverManager& operator=(const ObserverManager&) = delete;

  Entry* LockEntry(Observable* o);
  Entry* LockForPost(Observable* o, bool* referenced);
  void Deliver(Observable* o, Entry* e, unsigned int event, void* data,
               bool trace);
  static void DropTableReference(Entry* e);
  void IndexInsert(Observable* o, Entry* e);
  void IndexErase(Observable* o);
  static void Unref(Entry* e);

  std::map<Observable*, Entry*> observables_;
  std::map<Observer*, std::set<Observable*>> observers_;
  ACE_Recursive_Thread_Mutex lock_;
  std::atomic<bool> trace_;
  // How deep the thread holding lock_ has taken it; read and written only
  // under lock_.
  int depth_;
  // Registered observables by address hash, for posts that skip lock_.
  Stripe* stripes_;
};

#endif  // COM_COMMON_BASE_OBSERVERMANAGER_H_
