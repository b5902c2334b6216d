#include "common/os/ntservice.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/os/internal/ntservicerules.h"

#include "support/childprocess.h"
#include "support/runas.h"
#include "support/tempfolder.h"

namespace {

namespace KI = Kelvane::internal;
using testsupport::ChildProcess;
using testsupport::TempFolder;

std::string Shell(const std::string& cmd) {
  std::string out;
  FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
  ::pclose(p);
  while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
    out.pop_back();
  return out;
}

// The text and code of the APIError `fn` throws, or "no error".
struct Thrown {
  std::string text = "no error";
  unsigned code = 0;
};

template <typename F>
Thrown Catch(F fn) {
  Thrown t;
  try {
    fn();
  } catch (const NT_Service::APIError& e) {
    t.text = e.what();
    t.code = e.code();
  }
  return t;
}

TEST(NTServiceRules, NamesStatesAndJobResults) {
  EXPECT_EQ("archive.service", KI::ServiceUnitName("archive"));
  EXPECT_EQ("archive.service", KI::ServiceUnitName("archive.service"));
  EXPECT_EQ("a.socket.service", KI::ServiceUnitName("a.socket"));
  EXPECT_EQ(".service.service", KI::ServiceUnitName(".service"));

  struct {
    const char* state;
    bool enabled;
  } files[] = {
      {"enabled", true}, {"enabled-runtime", true}, {"disabled", true},
      {"static", true},  {"indirect", true},        {"generated", true},
      {"linked", true},  {"masked", false},         {"masked-runtime", false}};
  for (const auto& r : files) {
    EXPECT_EQ(r.enabled, KI::UnitFileStateEnabled(r.state)) << r.state;
  }
  struct {
    const char* state;
    bool running;
  } active[] = {{"active", true},      {"activating", true},
                {"reloading", true},   {"deactivating", false},
                {"inactive", false},   {"failed", false},
                {"maintenance", false}};
  for (const auto& r : active) {
    EXPECT_EQ(r.running, KI::ActiveStateRunning(r.state)) << r.state;
  }
  struct {
    const char* result;
    int error;
  } jobs[] = {{"done", 0},
              {"skipped", 0},
              {"failed", EIO},
              {"dependency", EIO},
              {"timeout", ETIMEDOUT},
              {"canceled", ECANCELED},
              {"unsupported", EOPNOTSUPP},
              {"invalid", EINVAL}};
  for (const auto& r : jobs) {
    EXPECT_EQ(r.error, KI::JobResultError(r.result)) << r.result;
  }
}

TEST(NTServiceAPIError, TextsAndCodes) {
  errno = EACCES;
  NT_Service::APIError captured;
  EXPECT_EQ(static_cast<unsigned>(EACCES), captured.code());
  EXPECT_STREQ(std::strerror(EACCES), captured.what());

  NT_Service::APIError withMessage(EACCES, "Access denied");
  EXPECT_STREQ("Access denied", withMessage.what());
  NT_Service::APIError copy(withMessage);
  EXPECT_STREQ("Access denied", copy.what());
  EXPECT_EQ(static_cast<unsigned>(EACCES), copy.code());
  copy = NT_Service::APIError(ENOENT, "");
  EXPECT_STREQ(std::strerror(ENOENT), copy.what());
  EXPECT_EQ(static_cast<unsigned>(ENOENT), copy.code());

  const std::string longText(600, 'x');
  NT_Service::APIError cut(EIO, longText.c_str());
  EXPECT_EQ(longText.substr(0, 511), cut.what());
}

TEST(NTService, OperationsBeforeOpenThrow) {
  NT_Service service("anything");
  std::vector<std::function<void()>> calls = {
      [&] { service.run(); },       [&] { service.stop(); },
      [&] { service.enable(); },    [&] { service.disable(); },
      [&] { service.isEnabled(); }, [&] { service.isRunning(); }};
  for (size_t i = 0; i < calls.size(); ++i) {
    Thrown t = Catch(calls[i]);
    EXPECT_EQ(static_cast<unsigned>(EBADF), t.code) << i;
    EXPECT_EQ(std::strerror(EBADF), t.text) << i;
  }
}

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() {
    if (had_) {
      ::setenv(name_, old_.c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::string old_;
  bool had_ = false;
};

TEST(NTService, UnreachableBusGivesTheSystemText) {
  TempFolder folder;
  ScopedEnv bus("DBUS_SYSTEM_BUS_ADDRESS",
                "unix:path=" + folder.File("no-bus-here"));
  NT_Service service("anything");
  Thrown t = Catch([&] { service.open(); });
  EXPECT_EQ(static_cast<unsigned>(ENOENT), t.code);
  EXPECT_EQ(std::strerror(ENOENT), t.text);
}

// The extension of the systemd template: the unit-file calls, LoadUnit as
// the manager answers it (a unit object whose LoadState is "not-found" for
// an unknown name), a StartUnit whose job can fail and which refuses masked
// units, and test calls to set states.
const char kExtension[] = R"PY(
import sys
import dbus
bus = dbus.bus.BusConnection(sys.argv[1])
obj = bus.get_object('org.freedesktop.systemd1', '/org/freedesktop/systemd1')
mock = dbus.Interface(obj, 'org.freedesktop.DBus.Mock')
M = 'org.freedesktop.systemd1.Manager'
T = 'com.kelvane.test.Systemd'
U = 'org.freedesktop.systemd1.Unit'

mock.AddMethod(T, 'Setup', '', '', '''
def file_state(f):
    if 'raw' in f: return f['raw']
    if f['masked']: return 'masked'
    if f['enabled']: return 'enabled'
    return 'disabled'
self.file_state = file_state
self.files = {}
self.failing = set()
self.reloads = 0
''')
mock.AddMethod(T, 'AddService', 'ss', '', '''
name = str(args[0])
self.AddMockUnit(name)
self.files[name] = {'masked': args[1] == 'disabled',
                    'enabled': args[1] == 'automatic'}
''')
mock.AddMethod(T, 'FailStarts', 's', '', 'self.failing.add(str(args[0]))')
mock.AddMethod(T, 'SetActiveState', 'ss', '', '''
objects[self.units[str(args[0])]].UpdateProperties(
    'org.freedesktop.systemd1.Unit', {'ActiveState': str(args[1])})
''')
mock.AddMethod(T, 'SetUnitFileState', 'ss', '',
               'self.files[str(args[0])]["raw"] = str(args[1])')
mock.AddMethod(T, 'Reloads', '', 'u', 'ret = self.reloads')

mock.AddMethod(M, 'Subscribe', '', '', '')
mock.AddMethod(M, 'Reload', '', '', 'self.reloads += 1')
mock.AddMethod(M, 'LoadUnit', 's', 'o', '''
name = str(args[0])
if name not in self.units:
    self.AddMockUnit(name)
    objects[self.units[name]].UpdateProperties(
        'org.freedesktop.systemd1.Unit', {'LoadState': 'not-found'})
ret = self.units[name]
''')
mock.AddMethod(M, 'GetUnitFileState', 's', 's', '''
name = str(args[0])
if name not in self.files:
    raise dbus.exceptions.DBusException(
        'Unit file %s does not exist.' % name,
        name='org.freedesktop.DBus.Error.FileNotFound')
ret = self.file_state(self.files[name])
''')
for method, sig, key, value, out in (
        ('MaskUnitFiles', 'asbb', 'masked', True, 'a(sss)'),
        ('UnmaskUnitFiles', 'asb', 'masked', False, 'a(sss)'),
        ('DisableUnitFiles', 'asb', 'enabled', False, 'a(sss)'),
        ('EnableUnitFiles', 'asbb', 'enabled', True, 'ba(sss)')):
    code = '''
changes = []
for n in args[0]:
    f = self.files[str(n)]
    f.pop('raw', None)
    f['%s'] = %s
    changes.append(('symlink', '/etc/systemd/system/' + str(n), '/dev/null'))
ret = %s
''' % (key, value, '(True, changes)' if out == 'ba(sss)' else 'changes')
    mock.AddMethod(M, method, sig, out, code)
mock.AddMethod(M, 'StartUnit', 'ss', 'o', '''
from gi.repository import GLib
name = str(args[0])
unit = objects[self.units[name]] if name in self.units else None
if unit is None or unit.props[
        'org.freedesktop.systemd1.Unit']['LoadState'] == 'not-found':
    raise dbus.exceptions.DBusException(
        'Unit %s not found.' % name,
        name='org.freedesktop.systemd1.NoSuchUnit')
if self.files.get(name, {}).get('masked'):
    raise dbus.exceptions.DBusException(
        'Unit %s is masked.' % name,
        name='org.freedesktop.systemd1.UnitMasked')
self.next_job_id += 1
job_id = self.next_job_id
job = '/org/freedesktop/systemd1/job/%d' % job_id
result = 'failed' if name in self.failing else 'done'
unit.UpdateProperties('org.freedesktop.systemd1.Unit',
                      {'ActiveState': 'failed' if result == 'failed'
                                      else 'active'})
def finish(self=self, job_id=job_id, job=job, name=name, result=result):
    self.EmitSignal('org.freedesktop.systemd1.Manager', 'JobRemoved', 'uoss',
                    [dbus.UInt32(job_id), dbus.ObjectPath(job), name, result])
    return False
GLib.timeout_add(50, finish)
ret = dbus.ObjectPath(job)
''')
dbus.Interface(obj, T).Setup()
print('ready')
)PY";

// The bus: everything allowed, except StartUnit for "nobody".
const char kBusConfig[] = R"XML(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=@SOCKET@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <policy user="nobody">
    <deny send_destination="org.freedesktop.systemd1"
          send_interface="org.freedesktop.systemd1.Manager"
          send_member="StartUnit"/>
  </policy>
</busconfig>
)XML";

// A private system-like bus with the systemd double on it, shared by the
// tests of the suite; each test uses units of its own.
class NTServiceBusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const char* pythons[] = {"/usr/bin/python3", "/usr/local/bin/python3"};
    for (const char* p : pythons) {
      if (std::system(
              (std::string(p) + " -c 'import dbusmock, gi' >/dev/null 2>&1")
                  .c_str()) == 0) {
        python_ = p;
        break;
      }
    }
    if (python_.empty()) {
      skip_ = "no python3 with dbusmock";
      return;
    }
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
      skip_ = "no dbus-daemon";
      return;
    }
    folder_ = new TempFolder;
    std::string config = kBusConfig;
    config.replace(config.find("@SOCKET@"), 8, folder_->File("bus"));
    const std::string configFile = folder_->Write("bus.conf", config);
    daemon_ = new ChildProcess;
    std::string address;
    if (!daemon_->Start({"/usr/bin/dbus-daemon", "--config-file=" + configFile,
                         "--nofork", "--print-address=1"}) ||
        !daemon_->ReadLine(&address)) {
      skip_ = "the private bus did not start";
      return;
    }
    address_ = address;
    ::chmod(folder_->File("bus").c_str(), 0777);
    env_ = new ScopedEnv("DBUS_SYSTEM_BUS_ADDRESS", address_);
    mock_ = new ChildProcess;
    if (!mock_->Start({python_, "-m", "dbusmock", "--template", "systemd", "-l",
                       folder_->File("mock.log")})) {
      skip_ = "dbusmock did not start";
      return;
    }
    // Wait (up to ten seconds) until the double owns its name.
    for (int i = 0; i < 200 && !Owned(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const std::string script = folder_->Write("extend.py", kExtension);
    std::string out =
        Shell(python_ + " " + script + " '" + address_ + "' 2>&1");
    if (out != "ready") skip_ = "extending the systemd double failed: " + out;
  }

  static void TearDownTestSuite() {
    delete mock_;
    mock_ = nullptr;
    delete env_;
    env_ = nullptr;
    delete daemon_;
    daemon_ = nullptr;
    delete folder_;
    folder_ = nullptr;
  }

  void SetUp() override {
    if (!skip_.empty()) GTEST_SKIP() << skip_;
  }

  static bool Owned() {
    return Shell("dbus-send --bus='" + address_ +
                 "' --print-reply --dest=org.freedesktop.DBus "
                 "/org/freedesktop/DBus org.freedesktop.DBus.NameHasOwner "
                 "string:org.freedesktop.systemd1 2>/dev/null")
               .find("boolean true") != std::string::npos;
  }

  // Calls a test method of the double; returns dbus-send's output.
  static std::string Double(const std::string& method,
                            const std::string& args) {
    return Shell("dbus-send --bus='" + address_ +
                 "' --print-reply --dest=org.freedesktop.systemd1 "
                 "/org/freedesktop/systemd1 " +
                 method + " " + args + " 2>&1");
  }
  static void AddService(const std::string& unit, const std::string& start) {
    Double("com.kelvane.test.Systemd.AddService",
           "string:" + unit + " string:" + start);
  }
  static std::string FileState(const std::string& unit) {
    std::string out = Double(
        "org.freedesktop.systemd1.Manager.GetUnitFileState", "string:" + unit);
    size_t q = out.find('"');
    return q == std::string::npos ? out
                                  : out.substr(q + 1, out.rfind('"') - q - 1);
  }

  static std::string python_;
  static std::string address_;
  static std::string skip_;
  static TempFolder* folder_;
  static ChildProcess* daemon_;
  static ChildProcess* mock_;
  static ScopedEnv* env_;
};

std::string NTServiceBusTest::python_;
std::string NTServiceBusTest::address_;
std::string NTServiceBusTest::skip_;
TempFolder* NTServiceBusTest::folder_ = nullptr;
ChildProcess* NTServiceBusTest::daemon_ = nullptr;
ChildProcess* NTServiceBusTest::mock_ = nullptr;
ScopedEnv* NTServiceBusTest::env_ = nullptr;

TEST_F(NTServiceBusTest, StartsAndStops) {
  AddService("archive.service", "manual");
  NT_Service service("archive");
  service.open();
  EXPECT_FALSE(service.isRunning());
  service.run();
  EXPECT_TRUE(service.isRunning());
  // Again: the job of an active unit simply finishes.
  service.run();
  EXPECT_TRUE(service.isRunning());
  // A copy shares the opened unit.
  NT_Service copy(service);
  copy.stop();
  EXPECT_FALSE(service.isRunning());
  EXPECT_TRUE(service.isEnabled());
}

TEST_F(NTServiceBusTest, RunningFollowsTheActiveState) {
  AddService("states.service", "manual");
  NT_Service service("states.service");
  service.open();
  struct {
    const char* state;
    bool running;
  } rows[] = {{"activating", true},    {"active", true},    {"reloading", true},
              {"deactivating", false}, {"inactive", false}, {"failed", false}};
  for (const auto& r : rows) {
    Double("com.kelvane.test.Systemd.SetActiveState",
           std::string("string:states.service string:") + r.state);
    EXPECT_EQ(r.running, service.isRunning()) << r.state;
  }
}

TEST_F(NTServiceBusTest, EnabledFollowsTheUnitFileState) {
  AddService("files.service", "manual");
  NT_Service service("files");
  service.open();
  struct {
    const char* state;
    bool enabled;
  } rows[] = {{"enabled", true}, {"disabled", true},
              {"static", true},  {"indirect", true},
              {"masked", false}, {"masked-runtime", false}};
  for (const auto& r : rows) {
    Double("com.kelvane.test.Systemd.SetUnitFileState",
           std::string("string:files.service string:") + r.state);
    EXPECT_EQ(r.enabled, service.isEnabled()) << r.state;
  }
}

// Automatic start comes back as manual start after disable() and enable().
TEST_F(NTServiceBusTest, DisableThenEnableGivesManualStart) {
  AddService("boot.service", "automatic");
  NT_Service service("boot");
  service.open();
  ASSERT_EQ("enabled", FileState("boot.service"));
  EXPECT_TRUE(service.isEnabled());

  service.disable();
  EXPECT_EQ("masked", FileState("boot.service"));
  EXPECT_FALSE(service.isEnabled());
  Thrown t = Catch([&] { service.run(); });
  EXPECT_EQ("Unit boot.service is masked.", t.text);
  EXPECT_FALSE(service.isRunning());

  service.enable();
  EXPECT_EQ("disabled", FileState("boot.service"))
      << "manual start: startable, not started at boot";
  EXPECT_TRUE(service.isEnabled());
  service.run();
  EXPECT_TRUE(service.isRunning());
  // Enabling a manual unit keeps it manual.
  service.enable();
  EXPECT_EQ("disabled", FileState("boot.service"));
  std::string reloads = Double("com.kelvane.test.Systemd.Reloads", "");
  EXPECT_NE(std::string::npos, reloads.find("uint32 3")) << reloads;
}

TEST_F(NTServiceBusTest, MissingUnitFailsToOpen) {
  NT_Service service("no-such-service");
  Thrown t = Catch([&] { service.open(); });
  EXPECT_EQ("Unit no-such-service.service not found.", t.text);
  EXPECT_EQ(static_cast<unsigned>(ENOENT), t.code);
  // Not opened: the object still has no unit.
  EXPECT_EQ(static_cast<unsigned>(EBADF),
            Catch([&] { service.isRunning(); }).code);
}

TEST_F(NTServiceBusTest, FailedStartJobThrows) {
  AddService("broken.service", "manual");
  Double("com.kelvane.test.Systemd.FailStarts", "string:broken.service");
  NT_Service service("broken");
  service.open();
  Thrown t = Catch([&] { service.run(); });
  EXPECT_EQ(static_cast<unsigned>(EIO), t.code);
  EXPECT_EQ(std::strerror(EIO), t.text);
  EXPECT_FALSE(service.isRunning());
}

TEST_F(NTServiceBusTest, AccessDeniedByTheBus) {
  AddService("guarded.service", "manual");
  std::string answer;
  ASSERT_TRUE(testsupport::RunUnprivileged(
      []() -> std::string {
        NT_Service service("guarded");
        try {
          service.open();  // looking the unit up is allowed
        } catch (const NT_Service::APIError& e) {
          return std::string("open: ") + e.what();
        }
        Thrown t = Catch([&] { service.run(); });
        return std::to_string(t.code) + " " + t.text;
      },
      &answer))
      << answer;
  EXPECT_EQ(std::to_string(EACCES) + " Rejected send message",
            answer.substr(0, std::to_string(EACCES).size() + 22))
      << answer;
  EXPECT_NE(std::string::npos, answer.find("member=\"StartUnit\"")) << answer;
}

// Copies of one opened object share its connection from several threads
// while other threads open services of their own.
TEST_F(NTServiceBusTest, CopiesAcrossThreads) {
  AddService("shared.service", "manual");
  NT_Service service("shared");
  service.open();
  service.run();
  std::vector<std::thread> threads;
  std::vector<int> wrong(6, 0);
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([&, i] {
      NT_Service mine = i % 2 == 0 ? service : NT_Service("shared");
      try {
        if (i % 2 != 0) mine.open();
        for (int k = 0; k < 20; ++k) {
          if (!mine.isRunning() || !mine.isEnabled()) ++wrong[i];
        }
      } catch (const NT_Service::APIError&) {
        ++wrong[i];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int i = 0; i < 6; ++i) EXPECT_EQ(0, wrong[i]) << i;
}

// The real manager, where this machine runs one: a transient unit made with
// systemd-run, stopped through the class.
TEST(NTServiceSystemd, TransientUnitOnTheRealManager) {
  struct stat st;
  if (::stat("/run/systemd/system", &st) != 0) {
    GTEST_SKIP() << "systemd is not this machine's init";
  }
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start system units";
  const std::string unit = "com-test-" + std::to_string(::getpid());
  if (std::system(("systemd-run --quiet --unit=" + unit +
                   " --remain-after-exit /bin/true >/dev/null 2>&1")
                      .c_str()) != 0) {
    GTEST_SKIP() << "systemd-run could not start a transient unit";
  }
  NT_Service service(unit.c_str());
  service.open();
  EXPECT_TRUE(service.isRunning());
  EXPECT_TRUE(service.isEnabled());  // transient: startable, not masked
  service.stop();
  EXPECT_FALSE(service.isRunning());
}

}  // namespace
