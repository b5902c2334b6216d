// A second process for the cross-process tests, driven by lines on stdin:
//   com_test_child failures      "f": raise one allocation failure, answer
//                                the failure count
//   com_test_child event <name>  open the shared event, answer "ready"; then
//                                "?": poll it, "w <ms>": wait for it (answer
//                                1 or 0), "s": signal, "r": reset ("ok")
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>

#include "common/base/memoryallocationexception.h"
#include "common/namedevent/internal/sharedevent.h"

namespace {

bool ReadLine(std::string* line) {
  char buf[256];
  if (!std::fgets(buf, sizeof buf, stdin)) return false;
  *line = buf;
  while (!line->empty() && line->back() == '\n') line->pop_back();
  return true;
}

void Answer(const std::string& text) {
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

int Failures() {
  std::string line;
  while (ReadLine(&line)) {
    if (line != "f") return 2;
    Kelvane::MemoryAllocationException e("test failure", __FILE__, __LINE__);
    Answer(std::to_string(
        Kelvane::MemoryAllocationException::GetGlobalAllocationFailures()));
  }
  return 0;
}

int Event(const char* name) {
  Common::internal::SharedEvent ev;
  if (ev.Open(name, true, false) != 0) {
    Answer(std::string("error ") + std::strerror(errno));
    return 1;
  }
  Answer("ready");
  std::string line;
  while (ReadLine(&line)) {
    if (line == "?" || line.compare(0, 2, "w ") == 0) {
      long ms = line == "?" ? 0 : std::atol(line.c_str() + 2);
      ACE_Time_Value deadline =
          ACE_OS::gettimeofday() + ACE_Time_Value(0, ms * 1000);
      Answer(ev.Wait(&deadline) == 0 ? "1" : "0");
    } else if (line == "s") {
      Answer(ev.Signal() == 0 ? "ok" : "error");
    } else if (line == "r") {
      Answer(ev.Reset() == 0 ? "ok" : "error");
    } else {
      return 2;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);  // keep stdout clean
  if (argc == 2 && std::strcmp(argv[1], "failures") == 0) return Failures();
  if (argc == 3 && std::strcmp(argv[1], "event") == 0) return Event(argv[2]);
  std::fprintf(stderr, "usage: %s failures | event <name>\n", argv[0]);
  return 2;
}
