#include "common/os/ntservice.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "common/os/internal/ntservicerules.h"

namespace Kelvane {
namespace internal {

std::string ServiceUnitName(const std::string& name) {
  static const char kSuffix[] = ".service";
  const size_t n = sizeof kSuffix - 1;
  if (name.size() > n && name.compare(name.size() - n, n, kSuffix) == 0) {
    return name;
  }
  return name + kSuffix;
}

bool UnitFileStateEnabled(const std::string& state) {
  return state != "masked" && state != "masked-runtime";
}

bool ActiveStateRunning(const std::string& state) {
  return state == "active" || state == "activating" || state == "reloading";
}

int JobResultError(const std::string& result) {
  if (result == "done" || result == "skipped") return 0;
  if (result == "timeout") return ETIMEDOUT;
  if (result == "canceled") return ECANCELED;
  if (result == "unsupported") return EOPNOTSUPP;
  if (result == "invalid") return EINVAL;
  return EIO;
}

}  // namespace internal
}  // namespace Kelvane

// ================================================================ APIError

namespace {

void FillText(char (&text)[512], ACE_UINT32 code, const char* message) {
  if (message == nullptr || *message == '\0') {
    char buf[256];
    message = ::strerror_r(static_cast<int>(code), buf, sizeof buf);
    std::strncpy(text, message, sizeof text - 1);
  } else {
    std::strncpy(text, message, sizeof text - 1);
  }
  text[sizeof text - 1] = '\0';
}

}  // namespace

NT_Service::APIError::APIError() : code_(static_cast<ACE_UINT32>(errno)) {
  FillText(text_, code_, nullptr);
}

NT_Service::APIError::APIError(ACE_UINT32 code, const char* message)
    : code_(code) {
  FillText(text_, code_, message);
}

NT_Service::APIError::APIError(const APIError& other)
    : std::exception(other), code_(other.code_) {
  std::memcpy(text_, other.text_, sizeof text_);
}

NT_Service::APIError& NT_Service::APIError::operator=(const APIError& other) {
  std::memcpy(text_, other.text_, sizeof text_);
  code_ = other.code_;
  return *this;
}

NT_Service::APIError::~APIError() = default;

const char* NT_Service::APIError::what() const noexcept { return text_; }

// ================================================================ the bus

namespace {

const char kDestination[] = "org.freedesktop.systemd1";
const char kManagerPath[] = "/org/freedesktop/systemd1";
const char kManager[] = "org.freedesktop.systemd1.Manager";
const char kUnit[] = "org.freedesktop.systemd1.Unit";

// Owns an sd_bus_error and turns it into an APIError.
class BusError {
 public:
  BusError() = default;
  ~BusError() { ::sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error* get() { return &error_; }

  // Throws the error of a call that returned `r` < 0.
  [[noreturn]] void Throw(int r) {
    int code =
        ::sd_bus_error_is_set(&error_) ? ::sd_bus_error_get_errno(&error_) : -r;
    if (code <= 0) code = -r > 0 ? -r : EIO;
    throw NT_Service::APIError(
        static_cast<ACE_UINT32>(code),
        ::sd_bus_error_is_set(&error_) ? error_.message : nullptr);
  }

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

struct MessageRef {
  sd_bus_message* m = nullptr;
  ~MessageRef() { ::sd_bus_message_unref(m); }
};

struct SlotRef {
  sd_bus_slot* s = nullptr;
  ~SlotRef() { ::sd_bus_slot_unref(s); }
};

}  // namespace

// What open() made: the bus connection, the unit and its object. Never
// freed by NT_Service; the table below keeps every one until the process
// ends.
struct NT_Service::Connection {
  std::mutex lock;
  sd_bus* bus = nullptr;
  std::string unit;
  std::string path;
  bool subscribed = false;
};

namespace {

std::mutex& ConnectionsLock() {
  static std::mutex lock;
  return lock;
}

std::vector<std::unique_ptr<NT_Service::Connection>>& Connections() {
  static auto* all = new std::vector<std::unique_ptr<NT_Service::Connection>>;
  return *all;
}

NT_Service::Connection& Opened(NT_Service::Connection* c) {
  if (c == nullptr) throw NT_Service::APIError(EBADF, nullptr);
  return *c;
}

std::string PropertyString(NT_Service::Connection& c, const char* name) {
  BusError error;
  char* value = nullptr;
  int r = ::sd_bus_get_property_string(c.bus, kDestination, c.path.c_str(),
                                       kUnit, name, error.get(), &value);
  if (r < 0) error.Throw(r);
  std::string s(value != nullptr ? value : "");
  std::free(value);
  return s;
}

// Calls a manager method that takes the unit name as an array of one and
// the given booleans, and ignores its reply (the list of changes).
void UnitFileCall(NT_Service::Connection& c, const char* method,
                  const char* signature, int flag1, int flag2) {
  BusError error;
  MessageRef call, reply;
  int r = ::sd_bus_message_new_method_call(c.bus, &call.m, kDestination,
                                           kManagerPath, kManager, method);
  if (r >= 0) {
    const char* units[] = {c.unit.c_str(), nullptr};
    r = ::sd_bus_message_append_strv(call.m, const_cast<char**>(units));
  }
  if (r >= 0) r = ::sd_bus_message_append(call.m, "b", flag1);
  if (r >= 0 && std::strcmp(signature, "asbb") == 0) {
    r = ::sd_bus_message_append(call.m, "b", flag2);
  }
  if (r >= 0) r = ::sd_bus_call(c.bus, call.m, 0, error.get(), &reply.m);
  if (r < 0) error.Throw(r);
}

void Reload(NT_Service::Connection& c) {
  BusError error;
  MessageRef reply;
  int r = ::sd_bus_call_method(c.bus, kDestination, kManagerPath, kManager,
                               "Reload", error.get(), &reply.m, "");
  if (r < 0) error.Throw(r);
}

int OnJobRemoved(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* finished = static_cast<std::map<std::string, std::string>*>(userdata);
  uint32_t id = 0;
  const char* job = nullptr;
  const char* unit = nullptr;
  const char* result = nullptr;
  if (::sd_bus_message_read(m, "uoss", &id, &job, &unit, &result) >= 0) {
    (*finished)[job] = result;
  }
  return 0;
}

// StartUnit or StopUnit in "replace" mode, then waits for JobRemoved of the
// job it queued. The match is in place before the call, so a job that ends
// at once is not missed.
void RunJob(NT_Service::Connection& c, const char* method) {
  std::map<std::string, std::string> finished;
  SlotRef slot;
  int r =
      ::sd_bus_match_signal(c.bus, &slot.s, kDestination, kManagerPath,
                            kManager, "JobRemoved", OnJobRemoved, &finished);
  if (r < 0) throw NT_Service::APIError(static_cast<ACE_UINT32>(-r), nullptr);
  if (!c.subscribed) {
    // Older managers send job signals only to subscribers; a manager that
    // has no such call sends them anyway.
    BusError ignored;
    MessageRef reply;
    ::sd_bus_call_method(c.bus, kDestination, kManagerPath, kManager,
                         "Subscribe", ignored.get(), &reply.m, "");
    c.subscribed = true;
  }
  BusError error;
  MessageRef reply;
  r = ::sd_bus_call_method(c.bus, kDestination, kManagerPath, kManager, method,
                           error.get(), &reply.m, "ss", c.unit.c_str(),
                           "replace");
  if (r < 0) error.Throw(r);
  const char* job = nullptr;
  r = ::sd_bus_message_read(reply.m, "o", &job);
  if (r < 0) throw NT_Service::APIError(static_cast<ACE_UINT32>(-r), nullptr);
  const std::string jobPath(job);
  for (;;) {
    auto it = finished.find(jobPath);
    if (it != finished.end()) {
      int e = Kelvane::internal::JobResultError(it->second);
      if (e != 0)
        throw NT_Service::APIError(static_cast<ACE_UINT32>(e), nullptr);
      return;
    }
    r = ::sd_bus_process(c.bus, nullptr);
    if (r < 0) throw NT_Service::APIError(static_cast<ACE_UINT32>(-r), nullptr);
    if (r > 0) continue;
    r = ::sd_bus_wait(c.bus, UINT64_MAX);
    if (r < 0 && r != -EINTR) {
      throw NT_Service::APIError(static_cast<ACE_UINT32>(-r), nullptr);
    }
  }
}

}  // namespace

// ================================================================ NT_Service

NT_Service::NT_Service(const ACE_CString& name)
    : name_(name), handle_(nullptr) {}

NT_Service::~NT_Service() = default;

void NT_Service::open() {
  auto c = std::make_unique<Connection>();
  c->unit = Kelvane::internal::ServiceUnitName(
      std::string(name_.c_str(), name_.length()));
  int r = ::sd_bus_open_system(&c->bus);
  if (r < 0) throw APIError(static_cast<ACE_UINT32>(-r), nullptr);
  // From here on the connection is kept, as a failed open's handle would
  // be on the other system.
  Connection& conn = *c;
  {
    std::lock_guard<std::mutex> guard(ConnectionsLock());
    Connections().push_back(std::move(c));
  }
  BusError error;
  MessageRef reply;
  r = ::sd_bus_call_method(conn.bus, kDestination, kManagerPath, kManager,
                           "LoadUnit", error.get(), &reply.m, "s",
                           conn.unit.c_str());
  if (r < 0) error.Throw(r);
  const char* path = nullptr;
  r = ::sd_bus_message_read(reply.m, "o", &path);
  if (r < 0) throw APIError(static_cast<ACE_UINT32>(-r), nullptr);
  conn.path = path;
  if (PropertyString(conn, "LoadState") == "not-found") {
    const std::string text = "Unit " + conn.unit + " not found.";
    throw APIError(ENOENT, text.c_str());
  }
  handle_ = &conn;
}

void NT_Service::run() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  RunJob(c, "StartUnit");
}

void NT_Service::stop() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  RunJob(c, "StopUnit");
}

void NT_Service::enable() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  UnitFileCall(c, "UnmaskUnitFiles", "asb", 0, 0);
  UnitFileCall(c, "DisableUnitFiles", "asb", 0, 0);
  Reload(c);
}

void NT_Service::disable() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  UnitFileCall(c, "MaskUnitFiles", "asbb", 0, 1);
  Reload(c);
}

bool NT_Service::isEnabled() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  BusError error;
  MessageRef reply;
  int r = ::sd_bus_call_method(c.bus, kDestination, kManagerPath, kManager,
                               "GetUnitFileState", error.get(), &reply.m, "s",
                               c.unit.c_str());
  if (r < 0) error.Throw(r);
  const char* state = nullptr;
  r = ::sd_bus_message_read(reply.m, "s", &state);
  if (r < 0) throw APIError(static_cast<ACE_UINT32>(-r), nullptr);
  return Kelvane::internal::UnitFileStateEnabled(state);
}

bool NT_Service::isRunning() {
  Connection& c = Opened(handle_);
  std::lock_guard<std::mutex> guard(c.lock);
  return Kelvane::internal::ActiveStateRunning(
      PropertyString(c, "ActiveState"));
}
