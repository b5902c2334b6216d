#include "common/completionport/completionport.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

#include "demo.h"

namespace {

// Copies a file block by block through the reactor: each read's completion
// starts the write of that block, each write's completion the next read.
class BlockCopier : public ACE_Event_Handler {
 public:
  BlockCopier(CompletionPortReactor& reactor, int in, int out)
      : reactor_(reactor), in_(in), out_(out) {}

  int handle_input(ACE_HANDLE) override {
    CompletionPort::Overlapped* ov = reactor_.lastOverlapped();
    if (ov == &write_ || ov == nullptr) {  // priming, or a block written
      read_.offset = copied_;
      reactor_.startRead(in_, block_, sizeof block_, &read_);
    } else if (ov == &read_ && read_.result > 0) {
      std::printf("  block at %6llu: %u bytes read\n",
                  static_cast<unsigned long long>(read_.offset),
                  reactor_.lastBytes());
      write_.offset = read_.offset;
      reactor_.startWrite(out_, block_, reactor_.lastBytes(), &write_);
      copied_ += reactor_.lastBytes();
    } else {
      reactor_.stop();  // end of file
    }
    return 0;
  }
  int handle_exception(ACE_HANDLE) override {
    std::printf(
        "  failed: %s\n",
        std::strerror(static_cast<int>(-reactor_.lastOverlapped()->result)));
    reactor_.stop();
    return 0;
  }
  ACE_UINT64 copied() const { return copied_; }

 private:
  CompletionPortReactor& reactor_;
  int in_, out_;
  CompletionPort::Overlapped read_, write_;
  char block_[16384];
  ACE_UINT64 copied_ = 0;
};

void CompletionPortDemo() {
  const std::string from = demo::ScratchDir() + "/series.raw";
  const std::string to = demo::ScratchDir() + "/series.copy";
  std::ofstream(from, std::ios::binary) << std::string(40000, 'p');
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

  CompletionPortReactor reactor;
  BlockCopier copier(reactor, in, out);
  reactor.registerHandler(in, &copier);  // key 1: reads complete here
  reactor.registerHandle(out, 1);        // and so do the writes
  std::printf("copying %s through the completion port:\n", from.c_str());
  reactor.start();
  reactor.handleEvents();  // returns once the copier stops the reactor
  std::printf("copied %llu bytes to %s\n",
              static_cast<unsigned long long>(copier.copied()), to.c_str());

  try {
    reactor.registerHandler(in, &copier);
    std::printf("registered again after the loop ended (key 2)\n");
    reactor.start();
    reactor.registerHandler(out, &copier);
  } catch (const CompletionPortReactorException& e) {
    std::printf("registering while running: %s\n", e.what());
  }
  reactor.stop();
  close(in);
  close(out);
}

}  // namespace

COM_DEMO_SECTION(70, "Completion port", CompletionPortDemo);
