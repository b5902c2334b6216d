// Control of one installed system service by its name: start, stop, enable,
// disable and query it through the machine's service manager.
//
// On Linux the service manager is systemd, reached over D-Bus on the system
// bus (DBUS_SYSTEM_BUS_ADDRESS is honoured, so a test or a container can
// point it at another bus). The service "name" is the unit "name.service"
// ("name.service" itself is accepted too). The three start types map onto
// systemd as follows:
//
//   automatic  the unit is enabled: started at boot (unit-file state
//              "enabled" and its relatives)
//   manual     (demand start) the unit may be started, but not at boot:
//              unit-file state "disabled", "static", "indirect", ...
//   disabled   the unit cannot be started at all: "masked"
//
// So enable() unmasks the unit and removes its boot links (DisableUnitFiles)
// and disable() masks it; both then have systemd reload its configuration,
// as systemctl does. enable() gives manual start, never automatic: a unit
// that was started at boot before disable() comes back as manual, not as
// automatic. This asymmetry is deliberate; callers that want boot start
// enable the unit with the system's own tools. Masking fails (EEXIST) when
// the unit file is a regular file in /etc/systemd/system, where the mask
// link would go.
//
// isEnabled() is true unless the unit-file state is "masked" or
// "masked-runtime"; isRunning() is true while ActiveState is "active",
// "activating" (start pending) or "reloading", and false otherwise
// ("deactivating" is a stop pending).
//
// run() and stop() queue a start or stop job in "replace" mode and wait for
// the job to finish; a job that ends other than "done" (or "skipped": the
// unit's conditions said no) throws.
//
// Errors: every failure throws NT_Service::APIError, whose what() is the
// D-Bus error's message when there is one ("Access denied", "Unit x.service
// is masked.") and the system's text for its errno otherwise
// (strerror(ETIMEDOUT) for a job that timed out, strerror(EIO) for one that
// failed). open() of a unit systemd does not know throws "Unit
// <name>.service not found." with ENOENT.
//
// Handles: open() makes a bus connection that the object and its copies
// share; it is never closed by this class and lives until the process ends
// (the class is meant for short-lived tools). Calls through copies of one
// object are serialised on the shared connection, so copies may be used
// from different threads; one object is not used by two threads at once.
// A connection cannot cross fork(): a child process opens its own.
//
//   NT_Service service("kelvane-archive");
//   service.open();
//   if (!service.isRunning()) service.run();
#ifndef COM_COMMON_OS_NTSERVICE_H_
#define COM_COMMON_OS_NTSERVICE_H_

#include <exception>

#include <ace/Basic_Types.h>
#include <ace/SString.h>

#include "common/base/comexport.h"

class COM_EXPORT NT_Service {
 public:
  // The error of a failed call: its errno value and the system's text.
  class COM_EXPORT APIError : public std::exception {
   public:
    // The calling thread's errno and its text.
    APIError();
    // `code` (an errno value) with `message`, or the text of `code` when
    // `message` is null or empty. Longer texts are cut at 511 bytes.
    APIError(ACE_UINT32 code, const char* message);
    APIError(const APIError& other);
    APIError& operator=(const APIError& other);
    ~APIError() override;

    const char* what() const noexcept override;
    ACE_UINT32 code() const { return code_; }

   private:
    char text_[512];
    ACE_UINT32 code_;
  };

  struct Connection;

  explicit NT_Service(const ACE_CString& name);
  NT_Service(const NT_Service&) = default;
  NT_Service(NT_Service&&) = default;
  NT_Service& operator=(const NT_Service&) = default;
  NT_Service& operator=(NT_Service&&) = default;
  ~NT_Service();

  // Connects to the system bus and looks the unit up. Throws when the bus
  // cannot be reached or the unit does not exist.
  void open();
  // Starts the unit and waits for the start job.
  void run();
  // Stops the unit and waits for the stop job.
  void stop();
  // Manual start (see above).
  void enable();
  // Masks the unit.
  void disable();
  bool isEnabled();
  bool isRunning();

  // Each operation but open() throws APIError with EBADF before open().

 private:
  ACE_CString name_;
  Connection* handle_;
};

#endif  // COM_COMMON_OS_NTSERVICE_H_
