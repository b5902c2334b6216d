#include "common/base/observable.h"

#include <cstdint>

#include "common/base/comlog.h"
#include "common/base/observermanager.h"

namespace {

// "%X" prints an unsigned int: the low 32 bits of the address.
unsigned int Address(const void* p) {
  return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p));
}

}  // namespace

Observable::Observable(const char* name) : name_(name), detached_(true) {
  COM_LOG((LM_DEBUG, "Observable(%s)@%X created\n", name_, Address(this)));
  ObserverManager::Instance()->RegisterObservable(this);
  detached_.store(false);
}

Observable::Observable(const Observable& other)
    : name_(other.name_), detached_(other.detached_.load()) {}

Observable& Observable::operator=(const Observable& other) {
  name_ = other.name_;
  detached_.store(other.detached_.load());
  return *this;
}

Observable::~Observable() {
  COM_LOG((LM_DEBUG, "Observable(%s)@%X destroyed\n", name_, Address(this)));
  Detach();
}

void Observable::Detach() {
  // Marked first, so that a goodbye handler calling Detach() again, or
  // another thread racing this one, does nothing.
  if (!detached_.exchange(true)) {
    ObserverManager::Instance()->ObservableDetaching(this);
  }
}

void Observable::PostEvent(unsigned int event, void* data) {
  ObserverManager::Instance()->PostEvent(this, event, data);
}

bool Observable::HasObserver() {
  return ObserverManager::Instance()->HasObserver(this);
}
