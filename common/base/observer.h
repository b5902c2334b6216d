// A named sink of the events of Observables. Derive from it, override
// HandleEvent and subscribe with Observe(source, mask); HandleEvent is called
// on the thread that posts, for every event of the sources observed. The
// mask only accumulates and only answers ObserverManager::Responds: posting
// does not filter by it, so a handler looks at the event number itself.
// Event 0 with a null data pointer means the source is going away.
//
// Thread safety: Observe and the Detach members may be called from any
// thread, also from inside HandleEvent (the manager's locks are recursive).
// Once Detach() (or the destructor) has returned, HandleEvent is not called
// again for any source; a call running on another thread at that moment has
// finished before Detach() returns. An observer that detaches itself, or
// destroys another observer, from inside HandleEvent is fine: the observers
// that are gone are skipped for the rest of that delivery.
//
//   class Monitor : public Observer {
//    public:
//     Monitor() : Observer("Monitor") {}
//     void HandleEvent(Observable* from, unsigned int event, void*) override {
//       if (event == 0) return;  // `from` is going away
//       ...
//     }
//   };
//   Monitor m;
//   m.Observe(&volume, 1);
#ifndef COM_COMMON_BASE_OBSERVER_H_
#define COM_COMMON_BASE_OBSERVER_H_

#include <atomic>

#include "common/base/comexport.h"

class Observable;

class COM_EXPORT Observer {
 public:
  // Keeps `name` as given, without a copy. Logs "Observer(%s)@%X created\n"
  // at LM_DEBUG (always; the address as in Observable). Registers nowhere:
  // the observer is detached until its first Observe.
  explicit Observer(const char* name);
  // Copies the name and the detached flag; the copy watches nothing.
  Observer(const Observer& other);
  Observer& operator=(const Observer& other);
  // Logs "Observer(%s)@%X destroyed\n" at LM_DEBUG (always), then Detach().
  virtual ~Observer();

  // Called for each event of an observed source. Does nothing here.
  virtual void HandleEvent(Observable* source, unsigned int event, void* data);
  // Subscribes to `source`, OR-ing `mask` into the bits already given.
  virtual void Observe(Observable* source, unsigned int mask);
  // Unsubscribes from `source` (unless detached); the observer stays
  // attached. Quirk kept from the manager: if the observer watched exactly
  // one source, it is dropped from the manager's observer table whatever
  // that source was, so detaching from a source never observed leaves it
  // subscribed to its one real source but unknown to the manager: a later
  // Detach() no longer unsubscribes it there, and it must not be destroyed
  // before that source.
  virtual void Detach(Observable* source);
  // Unsubscribes from every source (unless already detached).
  virtual void Detach();

  const char* GetpName() const { return name_; }

 private:
  const char* name_;
  std::atomic<bool> detached_;
};

#endif  // COM_COMMON_BASE_OBSERVER_H_
