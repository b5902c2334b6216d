// DelayedCommand: holds a method request until a delay has passed, then
// queues it on its active object.
//
// MethodRequest::Schedule, Activate and Reactivate create one on the heap
// for a non-zero delay; it schedules a one-shot timer on
// ACE_Reactor::instance() and owns itself from then on. When the timer fires
// on the thread that runs the reactor's event loop, the request is queued
// through its self reference with the stored priority (its completion
// record is kept) and the command deletes itself. There is no cancel: a
// delayed request always reaches its queue (the request may check
// Canceled() when it runs). Without a thread running the reactor loop the
// timer never fires.
//
// Thread safety: construct on any thread; the call-backs run on the
// reactor's thread. Copies (copy and move construction and assignment copy
// the request and the priority) are plain values that the reactor does not
// know.
#ifndef COM_COMMON_BASE_DELAYEDCOMMAND_H_
#define COM_COMMON_BASE_DELAYEDCOMMAND_H_

#include <ace/Event_Handler.h>
#include <ace/Time_Value.h>

#include "common/base/activeobj.h"
#include "common/base/comexport.h"

class COM_EXPORT DelayedCommand : public ACE_Event_Handler {
 public:
  // Schedules the timer (first expiry after `delay`, no interval). Only on
  // the heap: handle_close deletes the object. If the reactor refuses the
  // timer it logs at LM_CRITICAL "DelayedCommand::DelayedCommand: Could not
  // schedule timer for command %s.\n" and the command stays allocated,
  // keeping the request alive, and never runs.
  DelayedCommand(const MethodRequestPtr& request,
                 Kelvane::CommandPriority priority,
                 const ACE_Time_Value& delay);
  DelayedCommand(const DelayedCommand& other);
  DelayedCommand(DelayedCommand&& other);
  DelayedCommand& operator=(const DelayedCommand& other);
  DelayedCommand& operator=(DelayedCommand&& other);
  ~DelayedCommand() override;

  // Queues the request at once and returns -1, so that the reactor drops
  // the timer and calls handle_close.
  int handle_timeout(const ACE_Time_Value& now, const void* act) override;
  // Deletes the object; returns 0.
  int handle_close(ACE_HANDLE handle, ACE_Reactor_Mask mask) override;

 private:
  MethodRequestPtr request_;
  Kelvane::CommandPriority priority_;
};

#endif  // COM_COMMON_BASE_DELAYEDCOMMAND_H_
