// archive_node: receives studies over TCP, stores each one compressed under
// the hashed study layout, durably, and acknowledges it only then.
//
// Settings come from the configuration file ($KELVANE_CONFIG), section
// [Software\Kelvane\ArchiveNode]: StorageRoot (required), Port (default
// 4707, 0 for any free port), ListenAddress (default 0.0.0.0),
// WatchdogInterval and RestartInterval in seconds (5 and 0 = never),
// ExitDelay in seconds (30), StoreThreads (4: stores overlap their fsyncs),
// PortFile (optional: the bound port is written
// there once the node listens).
//
// Threads: the main thread runs ACE's reactor (stop event, debug switch,
// watchdog ticks); one thread runs the completion-port reactor that accepts
// connections and receives studies; three active objects check, compress
// and store them. The storing object has a watchdog; each watchdog request
// it answers is passed on to systemd as WATCHDOG=1.
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <ace/Log_Msg.h>
#include <ace/Reactor.h>

#include "common/base/activeobj.h"
#include "common/base/bdatetime.h"
#include "common/base/debugtrigger.h"
#include "common/base/dtsstudyurl.h"
#include "common/base/observable.h"
#include "common/base/observer.h"
#include "common/base/servicebarrier.h"
#include "common/base/shutdownevent.h"
#include "common/base/stackutils.h"
#include "common/base/timerutils.h"
#include "common/completionport/completionport.h"
#include "common/iostreams/outputzmemstream.h"
#include "common/os/configstore.h"

#include "protocol.h"

namespace {

struct Settings {
  std::string root;
  std::string address = "0.0.0.0";
  int port = 4707;
  int watchdogInterval = 5;
  int restartInterval = 0;
  int exitDelay = 30;
  int storeThreads = 4;
  std::string portFile;
};

bool ReadInt(Kelvane::ConfigStore& config,
             const ACE_Configuration_Section_Key& key, const char* name,
             int low, int high, int& out) {
  ACE_CString text;
  if (Kelvane::ConfigStore::GetString(config.heap(), key, name, text) != 0)
    return true;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0' || value < low || value > high) {
    std::fprintf(stderr,
                 "archive_node: %s = \"%s\" is not a number in %d..%d\n", name,
                 text.c_str(), low, high);
    return false;
  }
  out = static_cast<int>(value);
  return true;
}

bool LoadSettings(Settings& s) {
  Kelvane::ConfigStore config;
  ACE_CString file = Kelvane::ConfigStore::FilePath();
  ACE_Configuration_Section_Key key;
  if (config.Load(file) != 0 ||
      config.OpenKey(archive::kConfigSection, key) != 0) {
    std::fprintf(stderr, "archive_node: no section [%s] in %s\n",
                 archive::kConfigSection, file.c_str());
    return false;
  }
  ACE_CString text;
  if (Kelvane::ConfigStore::GetString(config.heap(), key, "StorageRoot",
                                      text) != 0 ||
      text.length() == 0) {
    std::fprintf(stderr, "archive_node: StorageRoot is not set in %s\n",
                 file.c_str());
    return false;
  }
  s.root = text.c_str();
  if (Kelvane::ConfigStore::GetString(config.heap(), key, "ListenAddress",
                                      text) == 0)
    s.address = text.c_str();
  if (Kelvane::ConfigStore::GetString(config.heap(), key, "PortFile", text) ==
      0)
    s.portFile = text.c_str();
  return ReadInt(config, key, "Port", 0, 65535, s.port) &&
         ReadInt(config, key, "WatchdogInterval", 1, 3600,
                 s.watchdogInterval) &&
         ReadInt(config, key, "RestartInterval", 0, 1 << 30,
                 s.restartInterval) &&
         ReadInt(config, key, "ExitDelay", 0, 3600, s.exitDelay) &&
         ReadInt(config, key, "StoreThreads", 1, 64, s.storeThreads);
}

// Writes `size` bytes to `path` so that they survive a crash once this
// returns true: a temporary file beside it, fsync, rename over the target,
// fsync of the folder. Temporary names are unique, so that two stores of
// the same study at once each write their own file (the last rename wins).
bool WriteDurable(const std::string& path, const void* data, size_t size) {
  static std::atomic<unsigned long> serial{0};
  std::string temp = path + ".tmp" + std::to_string(++serial);
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const char* p = static_cast<const char*>(data);
  size_t left = size;
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      ::unlink(temp.c_str());
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0 ||
      ::rename(temp.c_str(), path.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  std::string folder = path.substr(0, path.rfind('/'));
  int dir = ::open(folder.empty() ? "/" : folder.c_str(),
                   O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  bool ok = ::fsync(dir) == 0;
  ::close(dir);
  return ok;
}

bool SyncFolder(const std::string& folder) {
  int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  bool ok = ::fsync(dir) == 0;
  ::close(dir);
  return ok;
}

class Receiver;

// One client connection. The receiving fields belong to the completion-port
// thread; while a study is in the pipeline no receive is outstanding, and
// the storing worker owns `answer` and `sendOv` until its send completes.
struct Connection {
  enum State { kUidLength, kUid, kLength, kBody };
  int fd = -1;
  State state = kUidLength;
  unsigned char header[8];
  size_t need = 4;
  size_t got = 0;
  std::string uid;
  std::vector<unsigned char> body;
  unsigned char answer = 0;
  CompletionPort::Overlapped recvOv, sendOv;
};

// A study travelling through the stages.
struct Study {
  std::shared_ptr<Connection> from;
  std::string uid;
  std::vector<unsigned char> bytes;
  std::vector<unsigned char> block;  // the compressed block
  std::string path;                  // the study folder once stored
};

// What the observable hands its observers with kStudyStored.
struct StoredInfo {
  const std::string* uid;
  const std::string* path;
  size_t bytes;
  size_t compressed;
};
const unsigned kStudyStored = 1;

class StoreEvents : public Observable {
 public:
  StoreEvents() : Observable("ArchiveNode.StoreEvents") {}
};

class StoreLog : public Observer {
 public:
  StoreLog() : Observer("ArchiveNode.StoreLog") {}
  void HandleEvent(Observable*, unsigned int event, void* data) override {
    if (event != kStudyStored || data == nullptr) return;
    const StoredInfo* info = static_cast<const StoredInfo*>(data);
    ++stored;
    ACE_DEBUG((LM_INFO, "archive_node: stored %C at %C (%B -> %B bytes)\n",
               info->uid->c_str(), info->path->c_str(),
               static_cast<ACE_UINT64>(info->bytes),
               static_cast<ACE_UINT64>(info->compressed)));
  }
  std::atomic<unsigned long> stored{0};
};

// The storing object: every watchdog request it runs is a sign of life
// passed on to systemd.
class StoreObj : public ActiveObj {
 public:
  StoreObj() : ActiveObj("ArchiveNode.3.Store", 1024) {}

 protected:
  void commandExecuted(MethodRequest& request) override {
    if (std::strcmp(request.GetName(), "WatchDogTimerRequest") == 0)
      ::sd_notify(0, "WATCHDOG=1");
  }
};

struct Pipeline {
  ActiveObj receive{"ArchiveNode.1.Receive", 1024};
  ActiveObj compress{"ArchiveNode.2.Compress", 1024};
  StoreObj store;
  StoreEvents events;
  std::string root;
  CompletionPort* port = nullptr;
};
Pipeline* g_pipeline = nullptr;

// Answers the client; the completion comes back to the receiver, which
// then waits for the next study.
void Answer(Study& study, unsigned char code) {
  Connection& c = *study.from;
  c.answer = code;
  if (g_pipeline->port->startSend(c.fd, &c.answer, 1, &c.sendOv) != 0)
    ACE_DEBUG((LM_ERROR, "archive_node: cannot answer for %C: %m\n",
               study.uid.c_str()));
}

class StageRequest : public MethodRequest {
 public:
  explicit StageRequest(std::shared_ptr<Study> study)
      : study_(std::move(study)) {}

 protected:
  std::shared_ptr<Study> study_;
};

class StoreRequest : public StageRequest {
 public:
  using StageRequest::StageRequest;
  ActiveObj* GetActiveObj() override { return &g_pipeline->store; }
  const char* GetName() override { return "StoreStudy"; }

 protected:
  int ExecuteImpl() override {
    Study& s = *study_;
    bool ok = Store(s);
    if (ok) {
      StoredInfo info{&s.uid, &s.path, s.bytes.size(), s.block.size()};
      g_pipeline->events.PostEvent(kStudyStored, &info);
    } else {
      ACE_DEBUG(
          (LM_ERROR, "archive_node: cannot store %C: %m\n", s.uid.c_str()));
    }
    Answer(s, ok ? archive::kStored : archive::kRejected);
    return 0;
  }

 private:
  bool Store(Study& s) {
    TimerGuard timer(ACE_CString("Store ") + s.uid.c_str());
    ACE_CString path =
        StackUtils::generateStudyPath(g_pipeline->root.c_str(), s.uid.c_str());
    s.path = path.c_str();
    std::string bucket = s.path.substr(0, s.path.rfind('/'));
    bool madeBucket = ::access(bucket.c_str(), F_OK) != 0;
    if (!StackUtils::createStudyPathFolder(path)) return false;
    if (madeBucket && !SyncFolder(g_pipeline->root)) return false;
    if (::mkdir(s.path.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (!WriteDurable(s.path + "/" + archive::kStudyFile, s.block.data(),
                      s.block.size()))
      return false;
    try {
      DTSStudyURL url(path, "", s.uid.c_str(), ARCHIVE, "", 0, BDateTime::Now(),
                      false, "");
      const ACE_CString& text = url.url();
      return WriteDurable(StackUtils::getMetaFilePath(path).c_str(),
                          text.c_str(), text.length());
    } catch (const BadlyFormedUrl& e) {
      ACE_DEBUG((LM_ERROR, "archive_node: %C: %C\n", s.uid.c_str(), e.what()));
      return false;
    }
  }
};

class CompressRequest : public StageRequest {
 public:
  using StageRequest::StageRequest;
  ActiveObj* GetActiveObj() override { return &g_pipeline->compress; }
  const char* GetName() override { return "CompressStudy"; }

 protected:
  int ExecuteImpl() override {
    Study& s = *study_;
    try {
      unsigned initial = static_cast<unsigned>(s.bytes.size() / 2 + 4096);
      OutputZMemStream out(initial, 0, nullptr, Z_BEST_SPEED);
      size_t done = 0;
      while (done < s.bytes.size()) {
        unsigned chunk = static_cast<unsigned>(
            std::min<size_t>(s.bytes.size() - done, 1u << 30));
        out.WriteBytes(s.bytes.data() + done, chunk);
        done += chunk;
      }
      out.Flush();
      s.block.assign(out.Data(), out.Data() + out.CurPos());
    } catch (const std::exception& e) {
      ACE_DEBUG((LM_ERROR, "archive_node: cannot compress %C: %C\n",
                 s.uid.c_str(), e.what()));
      Answer(s, archive::kRejected);
      return 0;
    }
    MethodRequest::Schedule(MethodRequestPtr(new StoreRequest(study_)),
                            Kelvane::NORMAL_PRIORITY);
    return 0;
  }
};

class ReceiveRequest : public StageRequest {
 public:
  using StageRequest::StageRequest;
  ActiveObj* GetActiveObj() override { return &g_pipeline->receive; }
  const char* GetName() override { return "ReceiveStudy"; }

 protected:
  int ExecuteImpl() override {
    if (!archive::ValidUid(study_->uid) || study_->bytes.empty()) {
      ACE_DEBUG(
          (LM_WARNING,
           "archive_node: rejected a study with UID \"%C\" and %B bytes\n",
           study_->uid.c_str(), static_cast<ACE_UINT64>(study_->bytes.size())));
      Answer(*study_, archive::kRejected);
      return 0;
    }
    ACE_DEBUG((LM_DEBUG, "archive_node: received %C, %B bytes\n",
               study_->uid.c_str(),
               static_cast<ACE_UINT64>(study_->bytes.size())));
    MethodRequest::Schedule(MethodRequestPtr(new CompressRequest(study_)),
                            Kelvane::NORMAL_PRIORITY);
    return 0;
  }
};

// Accepts connections and reads studies, on the completion-port thread.
class Receiver : public ACE_Event_Handler {
 public:
  Receiver(CompletionPortReactor& reactor, int listener)
      : reactor_(reactor), listener_(listener) {}

  int handle_input(ACE_HANDLE) override { return Completed(true); }
  int handle_exception(ACE_HANDLE) override { return Completed(false); }

  // Closes every connection (the loop has ended).
  void CloseAll() {
    for (auto& c : connections_) ::shutdown(c.second->fd, SHUT_RDWR);
  }
  void ReleaseAll() {
    for (auto& c : connections_) ::close(c.second->fd);
    connections_.clear();
  }

 private:
  int Completed(bool ok) {
    CompletionPort::Overlapped* ov = reactor_.lastOverlapped();
    if (ov == nullptr || ov == &accept_) {
      if (ov != nullptr && ok) Accepted(static_cast<int>(accept_.result));
      if (reactor_.startAccept(listener_, &accept_) != 0)
        ACE_DEBUG((LM_ERROR, "archive_node: cannot accept: %m\n"));
      return 0;
    }
    auto found = connections_.find(static_cast<Connection*>(ov->user));
    if (found == connections_.end()) return 0;
    std::shared_ptr<Connection> c = found->second;
    if (!ok || (ov == &c->recvOv && c->recvOv.result == 0)) {
      Close(c);
      return 0;
    }
    if (ov == &c->sendOv ||
        Received(*c, static_cast<size_t>(c->recvOv.result), c))
      NextReceive(c);
    return 0;
  }

  void Accepted(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto c = std::make_shared<Connection>();
    c->fd = fd;
    c->recvOv.user = c.get();
    c->sendOv.user = c.get();
    reactor_.registerHandle(fd, 1);
    connections_[c.get()] = c;
    Reset(*c);
    NextReceive(c);
  }

  static void Reset(Connection& c) {
    c.state = Connection::kUidLength;
    c.need = 4;
    c.got = 0;
  }

  void NextReceive(const std::shared_ptr<Connection>& c) {
    unsigned char* into;
    size_t want = c->need - c->got;
    switch (c->state) {
      case Connection::kUid:
        into = reinterpret_cast<unsigned char*>(&c->uid[0]) + c->got;
        break;
      case Connection::kBody:
        into = c->body.data() + c->got;
        want = std::min<size_t>(want, 1u << 20);
        break;
      default:
        into = c->header + c->got;
    }
    c->recvOv.offset = static_cast<ACE_UINT64>(-1);
    if (reactor_.startRecv(c->fd, into, static_cast<ACE_UINT32>(want),
                           &c->recvOv) != 0)
      Close(c);
  }

  // Takes `n` received bytes; true when the next receive is to start now,
  // false when a whole study went to the pipeline (or the connection was
  // closed).
  bool Received(Connection& c, size_t n,
                const std::shared_ptr<Connection>& self) {
    c.got += n;
    if (c.got < c.need) return true;
    switch (c.state) {
      case Connection::kUidLength: {
        std::uint64_t length = archive::GetLe(c.header, 4);
        if (length == 0 || length > archive::kMaxUidBytes) break;
        c.uid.assign(length, '\0');
        c.state = Connection::kUid;
        c.need = length;
        c.got = 0;
        return true;
      }
      case Connection::kUid:
        c.state = Connection::kLength;
        c.need = 8;
        c.got = 0;
        return true;
      case Connection::kLength: {
        std::uint64_t length = archive::GetLe(c.header, 8);
        if (length > archive::kMaxStudyBytes) break;
        c.body.assign(length, 0);
        c.state = Connection::kBody;
        c.need = length;
        c.got = 0;
        if (length > 0) return true;
        [[fallthrough]];  // an empty study is complete (and rejected)
      }
      case Connection::kBody: {
        auto study = std::make_shared<Study>();
        study->from = self;
        study->uid.swap(c.uid);
        study->bytes.swap(c.body);
        Reset(c);
        MethodRequest::Schedule(MethodRequestPtr(new ReceiveRequest(study)),
                                Kelvane::NORMAL_PRIORITY);
        return false;
      }
    }
    ACE_DEBUG(
        (LM_WARNING, "archive_node: bad frame from a client, closing it\n"));
    Close(self);
    return false;
  }

  void Close(const std::shared_ptr<Connection>& c) {
    ::close(c->fd);
    connections_.erase(c.get());
  }

  CompletionPortReactor& reactor_;
  int listener_;
  CompletionPort::Overlapped accept_;
  std::map<Connection*, std::shared_ptr<Connection>> connections_;
};

int Listen(const Settings& s) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int one = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(s.port));
  if (::inet_pton(AF_INET, s.address.c_str(), &addr.sin_addr) != 1 ||
      ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 128) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

int BoundPort(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

}  // namespace

int main() {
  // SIGTERM (systemctl stop) and SIGINT end the loop as the stop event does;
  // they are blocked in every thread and taken by one that waits for them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGUSR1);  // ends the waiting thread
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  Settings settings;
  if (!LoadSettings(settings)) return 2;
  if (::mkdir(settings.root.c_str(), 0755) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "archive_node: cannot create %s: %s\n",
                 settings.root.c_str(), std::strerror(errno));
    return 2;
  }

  ServiceBarrier* barrier = ServiceBarrier::instance();
  barrier->start();
  std::unique_ptr<Pipeline> pipeline(new Pipeline);
  pipeline->root = settings.root;
  g_pipeline = pipeline.get();
  pipeline->receive.run(1, 0);
  pipeline->compress.run(2, 0);
  pipeline->store.run(settings.storeThreads, 0);
  StoreLog log;
  log.Observe(&pipeline->events, kStudyStored);

  int listener = Listen(settings);
  if (listener < 0) {
    std::fprintf(stderr, "archive_node: cannot listen on %s:%d: %s\n",
                 settings.address.c_str(), settings.port, std::strerror(errno));
    barrier->end();
    ActiveObj::stopAll(true);
    return 2;
  }
  int port = BoundPort(listener);

  std::unique_ptr<CompletionPortReactor> reactor(new CompletionPortReactor);
  pipeline->port = reactor.get();
  Receiver receiver(*reactor, listener);
  reactor->registerHandler(listener, &receiver);

  DebugTrigger debug(false);
  ShutDownEvent stop(ACE_Time_Value(settings.restartInterval),
                     settings.exitDelay);
  pipeline->store.ActivateWatchDogTimer(settings.watchdogInterval,
                                        settings.watchdogInterval * 6);
  barrier->end();

  reactor->start();
  std::thread io([&] { reactor->handleEvents(); });
  if (!settings.portFile.empty()) {
    std::string text = std::to_string(port) + "\n";
    WriteDurable(settings.portFile, text.data(), text.size());
  }
  ACE_DEBUG((LM_INFO, "archive_node: storing under %C, listening on port %d\n",
             settings.root.c_str(), port));
  ::sd_notify(0, "READY=1");

  std::thread signals([stopSignals] {
    int signal = 0;
    while (sigwait(&stopSignals, &signal) == 0 && signal != SIGUSR1) {
      ACE_DEBUG((LM_INFO, "archive_node: signal %d\n", signal));
      ACE_Reactor::instance()->end_reactor_event_loop();
    }
  });
  ACE_Reactor::instance()->run_reactor_event_loop();

  ::sd_notify(0, "STOPPING=1");
  ACE_DEBUG((LM_INFO, "archive_node: stopping\n"));
  stop.ShutDown();
  pthread_kill(signals.native_handle(), SIGUSR1);
  signals.join();
  reactor->stop();
  io.join();
  // Everything received completely still goes through to the disk and is
  // answered; the stages stop in name order, each feeding the next.
  ActiveObj::stopAll(false);
  receiver.CloseAll();
  reactor.reset();
  receiver.ReleaseAll();
  ::close(listener);
  stop.ShutdownGracefully();
  ACE_DEBUG((LM_INFO, "archive_node: stopped after storing %Q studies%C\n",
             static_cast<ACE_UINT64>(log.stored.load()),
             stop.isAutomatedShutdown() ? " (restart)" : ""));
  log.Detach();
  return 0;
}
