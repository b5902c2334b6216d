#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

#include <ace/Log_Msg.h>
#include <ace/Reactor.h>

#include "common/base/shutdownevent.h"
#include "common/namedevent/namedevent.h"

#include "demo.h"

namespace {

// A service's main loop ended by another process of the installation: the
// child plays the operator's stop tool.
void StopEvent() {
  std::fflush(stdout);  // the child must not print the parent's buffer
  pid_t child = ::fork();
  if (child == 0) {
    ::usleep(300 * 1000);  // let the service get into its loop
    Common::NamedEvent stop("Global\\KelvaneAllStop");
    std::printf("child %d:   signals Global\\KelvaneAllStop\n",
                static_cast<int>(::getpid()));
    std::fflush(stdout);
    ::_exit(stop.signal() == 0 ? 0 : 1);
  }
  u_long mask = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
  ACE_LOG_MSG->priority_mask(mask & ~LM_DEBUG, ACE_Log_Msg::PROCESS);
  {
    // A restart after 10 s keeps the demo from hanging if the child fails.
    ShutDownEvent service(ACE_Time_Value(10), 0);
    std::printf("service %d: running its reactor loop\n",
                static_cast<int>(::getpid()));
    std::fflush(stdout);
    ACE_Reactor::instance()->run_reactor_event_loop();
    std::printf("service:       reactor loop ended (%s)\n",
                service.isAutomatedShutdown() ? "restart timer" : "stop event");
    service.ShutDown();
    Common::NamedEvent stop("Global\\KelvaneAllStop");
    stop.reset();  // manual reset: it stays signalled until someone resets
  }
  ACE_Reactor::instance()->reset_event_loop();
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
  int status = 0;
  ::waitpid(child, &status, 0);
}

}  // namespace

COM_DEMO_SECTION(70, "Machine-wide stop event", StopEvent);
