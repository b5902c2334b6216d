// DebugTrigger: turns the process's LM_DEBUG log output on and off at run
// time from the configuration value "Debug" of the section
// "Software\Kelvane\QuillonServer\System", so that an operator can enable
// debug logging of a running service without restarting it.
//
// The configuration is the INI file of common/os/configstore.h
// ($KELVANE_CONFIG, else /etc/kelvane/kelvane.ini). The value turns debug
// output on exactly when atoi() of it is above 0: "1" and "7" are on; "0",
// "-1", "" and "yes" are off. A missing value is written back as "0"; the
// write keeps the rest of the file and is atomic (ConfigStore::WriteString).
//
// Change notification: inotify on the file's folder, so that an editor that
// writes a copy and renames it over the file is seen as well as one that
// writes in place (a close after writing, a rename onto the file or its
// removal); the inotify descriptor is registered with
// ACE_Reactor::instance() and each change calls handle_signal on the
// reactor's thread, which reads the value again. A force given to the
// constructor holds only until that first change.
//
// Failures are logged and leave the object inert or unwatched; nothing
// throws.
//
// Thread safety: the priority mask is process-wide; construct and destroy
// on the owner's thread while the reactor loop runs on any one thread.
//
// Example:
//   DebugTrigger debug(false);
//   ACE_Reactor::instance()->run_reactor_event_loop();
#ifndef COM_COMMON_BASE_DEBUGTRIGGER_H_
#define COM_COMMON_BASE_DEBUGTRIGGER_H_

#include <atomic>
#include <memory>

#include <ace/Event_Handler.h>
#include <ace/SString.h>

#include "common/base/comexport.h"
#include "common/base/smartptr.h"
#include "common/os/configstore.h"

namespace Kelvane {
namespace internal {
class ReactorRelay;
}
}  // namespace Kelvane

class COM_EXPORT DebugTrigger : public ACE_Event_Handler {
 public:
  // "Software\Kelvane\QuillonServer\System" and "Debug".
  static const char kSection[];
  static const char kValue[];

  // Creates the section when missing (logging at LM_ERROR and staying inert
  // when the file cannot be written), applies SetDebugging(forceDebug) and
  // starts watching the file.
  explicit DebugTrigger(bool forceDebug);
  ~DebugTrigger() override;

  // Reads the value; when it is absent writes "0" and returns false.
  bool Debugging();
  // Adds LM_DEBUG to the process-wide priority mask when `force` or
  // Debugging(), else removes it, logging at LM_WARNING before the change;
  // no other bit is touched.
  void SetDebugging(bool force);

  // A change of the file: SetDebugging(false). Returns 0.
  int handle_signal(int, siginfo_t*, ucontext_t*) override;

 private:
  DebugTrigger(const DebugTrigger&) = delete;
  DebugTrigger& operator=(const DebugTrigger&) = delete;

  bool Watch();

  Kelvane::auto_ptr<Kelvane::ConfigStore> config_;
  ACE_CString file_;
  int notify_;  // inotify descriptor, -1 when not watching
  std::atomic<bool> closing_;
  std::unique_ptr<Kelvane::internal::ReactorRelay> relay_;
};

#endif  // COM_COMMON_BASE_DEBUGTRIGGER_H_
