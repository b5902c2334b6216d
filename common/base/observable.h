// A named source of synchronous events. An Observable registers itself with
// the process-wide ObserverManager when it is built and unregisters when it
// detaches or is destroyed; PostEvent hands an event number and an untyped
// pointer to every Observer subscribed to it, on the posting thread.
//
// Thread safety: PostEvent and HasObserver may be called from any thread.
// Detach() and the destructor may race with posts on other threads: they wait
// until the events being delivered on this observable have been handled, and
// no event is delivered after they return. Destroying the object while
// another thread is still inside one of its own members is the caller's
// fault, as for any object.
//
//   class Volume : public Observable {
//    public:
//     Volume() : Observable("Volume") {}
//   };
//   Volume v;                       // logs "Observable(Volume)@... created"
//   v.PostEvent(kVolumeFull, &info);
#ifndef COM_COMMON_BASE_OBSERVABLE_H_
#define COM_COMMON_BASE_OBSERVABLE_H_

#include <atomic>

#include "common/base/comexport.h"

class COM_EXPORT Observable {
 public:
  // Keeps `name` as given, without a copy: it must outlive the object. Logs
  // "Observable(%s)@%X created\n" at LM_DEBUG (always, whatever the trace
  // switch of the manager), with the low 32 bits of the object's address as
  // "%X" prints an unsigned int, then registers with the manager.
  explicit Observable(const char* name);
  // Copies the name and the detached flag; the copy is not registered (its
  // posts reach nobody, and destroying it leaves a null entry behind in the
  // manager's table).
  Observable(const Observable& other);
  Observable& operator=(const Observable& other);
  // Logs "Observable(%s)@%X destroyed\n" at LM_DEBUG (always), then Detach().
  virtual ~Observable();

  // Once: tells every subscriber (HandleEvent with event 0 and a null data
  // pointer) and leaves the manager. Later calls do nothing.
  void Detach();
  // ObserverManager::PostEvent(this, event, data): every subscriber's
  // HandleEvent, whatever mask it subscribed with.
  void PostEvent(unsigned int event, void* data);
  // Whether at least one observer is subscribed (Responds counts as one).
  bool HasObserver();
  const char* GetpName() const { return name_; }

 private:
  const char* name_;
  std::atomic<bool> detached_;
};

#endif  // COM_COMMON_BASE_OBSERVABLE_H_
