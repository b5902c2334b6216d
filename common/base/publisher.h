// A keyed publish/subscribe table: subscribers register for a key, and
// publishing a value under a key calls notify(key, value) of each subscriber
// of that key, in subscription order, on the publishing thread. The
// publisher neither owns nor deletes its subscribers.
//
// Thread safety: subscribe, unsubscribe and publish hold the publisher's
// lock for their whole run, subscribers' notify included; the lock is
// recursive, so a subscriber may publish (another key) or subscribe on the
// same thread. Publishing walks the key's subscribers in place: a subscriber
// must not unsubscribe from the key being published, nor subscribe to it,
// from inside notify.
//
// The library instantiates and exports Publisher<int, char*> (with
// Subscriber<int, char*>); any ordered key and any value type work.
//
//   struct Printer : Subscriber<int, char*> {
//     void notify(const int& key, char* const& text) override { ... }
//   };
//   Publisher<int, char*> bus;
//   Printer p;
//   bus.subscribe(7, &p);
//   bus.publish(7, text);   // true: p.notify(7, text)
//   bus.publish(8, text);   // false: nobody subscribed to 8
#ifndef COM_COMMON_BASE_PUBLISHER_H_
#define COM_COMMON_BASE_PUBLISHER_H_

#include <functional>
#include <map>
#include <utility>

#include <ace/Guard_T.h>
#include <ace/Recursive_Thread_Mutex.h>

#include "common/base/comexport.h"

template <typename Key, typename Value>
class COM_EXPORT Subscriber {
 public:
  // Called for each value published under a key this subscriber is
  // registered for (once per registration).
  virtual void notify(const Key& key, const Value& value) = 0;
  virtual ~Subscriber() {}
};

template <typename Key, typename Value, typename Compare = std::less<Key>>
class COM_EXPORT Publisher {
 public:
  typedef Subscriber<Key, Value> SubscriberType;

  Publisher() {}
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  virtual ~Publisher() {}

  // Adds `s` under `key`, after the subscribers already there. Subscribing
  // twice makes `s` called twice per publication. Returns true.
  virtual bool subscribe(const Key& key, SubscriberType* s) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, false);
    subscriptions_.insert(std::make_pair(key, s));
    return true;
  }

  // Removes the earliest registration of `s` under `key`. False if `s` is
  // not subscribed under that key (subscribed under another key counts as
  // not subscribed).
  virtual bool unsubscribe(const Key& key, SubscriberType* s) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, false);
    auto range = subscriptions_.equal_range(key);
    for (auto it = range.first; it != range.second; ++it) {
      if (it->second == s) {
        subscriptions_.erase(it);
        return true;
      }
    }
    return false;
  }

  // Calls notify(key, value) of every subscriber of `key` in subscription
  // order. True if there was at least one, false (and nothing called) if
  // none.
  virtual bool publish(const Key& key, const Value& value) {
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, lock_, false);
    auto range = subscriptions_.equal_range(key);
    if (range.first == range.second) return false;
    for (auto it = range.first; it != range.second; ++it) {
      it->second->notify(key, value);
    }
    return true;
  }

 private:
  std::multimap<Key, SubscriberType*, Compare> subscriptions_;
  ACE_Recursive_Thread_Mutex lock_;
};

extern template class Subscriber<int, char*>;
extern template class Publisher<int, char*, std::less<int>>;

#endif  // COM_COMMON_BASE_PUBLISHER_H_
