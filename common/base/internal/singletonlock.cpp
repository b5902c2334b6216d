#include "common/base/internal/singletonlock.h"

#include <ace/Object_Manager.h>

namespace Kelvane {
namespace internal {

ACE_Thread_Mutex* SingletonLock() {
  static ACE_Thread_Mutex* const lock = [] {
    ACE_Thread_Mutex* fetched = nullptr;
    return ACE_Object_Manager::get_singleton_lock(fetched) == 0 ? fetched
                                                                : nullptr;
  }();
  return lock;
}

}  // namespace internal
}  // namespace Kelvane
