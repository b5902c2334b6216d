#include "common/base/observer.h"

#include <cstdint>

#include "common/base/comlog.h"
#include "common/base/observermanager.h"

namespace {

// "%X" prints an unsigned int: the low 32 bits of the address.
unsigned int Address(const void* p) {
  return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p));
}

}  // namespace

Observer::Observer(const char* name) : name_(name), detached_(true) {
  COM_LOG((LM_DEBUG, "Observer(%s)@%X created\n", name_, Address(this)));
}

Observer::Observer(const Observer& other)
    : name_(other.name_), detached_(other.detached_.load()) {}

Observer& Observer::operator=(const Observer& other) {
  name_ = other.name_;
  detached_.store(other.detached_.load());
  return *this;
}

Observer::~Observer() {
  COM_LOG((LM_DEBUG, "Observer(%s)@%X destroyed\n", name_, Address(this)));
  Detach();
}

void Observer::HandleEvent(Observable*, unsigned int, void*) {}

void Observer::Observe(Observable* source, unsigned int mask) {
  detached_.store(false);
  ObserverManager::Instance()->RegisterObserver(source, this, mask);
}

void Observer::Detach(Observable* source) {
  if (!detached_.load()) {
    ObserverManager::Instance()->ObserverDetaching(this, source);
  }
}

void Observer::Detach() {
  if (!detached_.exchange(true)) {
    ObserverManager::Instance()->ObserverDetaching(this);
  }
}
