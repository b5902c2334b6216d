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

std::string Text(const NT_Service::APIError& e) {
  return std::to_string(e.code()) + " " + e.what();
}
std::string Catch(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const NT_Service::APIError& e) {
    return Text(e);
  }
  return "no error";
}

std::string Err(int code, const std::string& text = "") {
  return std::to_string(code) + " " +
         (text.empty() ? std::string(std::strerror(code)) : text);
}

// What the bus tests below cannot reach: names, states and job results the
// double never produces.
TEST(NTServiceRules, NamesStatesAndJobResults) {
  EXPECT_EQ("archive.service", KI::ServiceUnitName("archive.service"));
  EXPECT_EQ("a.socket.service", KI::ServiceUnitName("a.socket"));
  EXPECT_TRUE(KI::UnitFileStateEnabled("static"));
  EXPECT_FALSE(KI::UnitFileStateEnabled("masked-runtime"));
  EXPECT_TRUE(KI::ActiveStateRunning("reloading"));
  EXPECT_FALSE(KI::ActiveStateRunning("deactivating"));
  const struct {
    const char* result;
    int error;
  } jobs[] = {{"skipped", 0},
              {"dependency", EIO},
              {"timeout", ETIMEDOUT},
              {"canceled", ECANCELED},
              {"unsupported", EOPNOTSUPP},
              {"invalid", EINVAL}};
  for (const auto& r : jobs)
    EXPECT_EQ(r.error, KI::JobResultError(r.result)) << r.result;
}

TEST(NTServiceAPIError, TextsAndCodes) {
  errno = EACCES;
  EXPECT_EQ(Err(EACCES), Text(NT_Service::APIError()));
  EXPECT_EQ(Err(ENOENT), Text(NT_Service::APIError(ENOENT, "")));
  const std::string longText(600, 'x');
  EXPECT_EQ(longText.substr(0, 511),
            NT_Service::APIError(EIO, longText.c_str()).what());
}

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_.reset(new std::string(old));
    ::setenv(name, value.c_str(), 1);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::unique_ptr<std::string> old_;
};

TEST(NTService, UnopenedOrUnreachableThrowsTheSystemText) {
  NT_Service service("anything");
  EXPECT_EQ(Err(EBADF), Catch([&] { service.run(); }));
  EXPECT_EQ(Err(EBADF), Catch([&] { service.disable(); }));
  TempFolder folder;
  ScopedEnv bus("DBUS_SYSTEM_BUS_ADDRESS",
                "unix:path=" + folder.File("no-bus-here"));
  EXPECT_EQ(Err(ENOENT), Catch([&] { service.open(); }));
}

// Adds to the systemd template: maskable unit files, LoadUnit answering
// "not-found" units, and a StartUnit whose job can fail.
const char kExtension[] = R"PY(
import sys
import dbus
bus = dbus.bus.BusConnection(sys.argv[1])
obj = bus.get_object('org.freedesktop.systemd1', '/org/freedesktop/systemd1')
mock = dbus.Interface(obj, 'org.freedesktop.DBus.Mock')
M = 'org.freedesktop.systemd1.Manager'
T = 'com.kelvane.test.Systemd'

mock.AddMethod(T, 'Setup', '', '',
               'self.files, self.failing, self.reloads = {}, set(), 0')
mock.AddMethod(T, 'AddService', 'ss', '', '''
self.AddMockUnit(str(args[0]))
self.files[str(args[0])] = {'masked': False,
                            'enabled': args[1] == 'automatic'}
''')
mock.AddMethod(T, 'FailStarts', 's', '', 'self.failing.add(str(args[0]))')
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
f = self.files[str(args[0])]
ret = 'masked' if f['masked'] else 'enabled' if f['enabled'] else 'disabled'
''')
for method, sig, key, value in (('MaskUnitFiles', 'asbb', 'masked', True),
                                ('UnmaskUnitFiles', 'asb', 'masked', False),
                                ('DisableUnitFiles', 'asb', 'enabled', False)):
    mock.AddMethod(M, method, sig, 'a(sss)', '''
ret = []
for n in args[0]:
    self.files[str(n)]['%s'] = %s
    ret.append(('symlink', '/etc/systemd/system/' + str(n), '/dev/null'))
''' % (key, value))
mock.AddMethod(M, 'StartUnit', 'ss', 'o', '''
from gi.repository import GLib
name = str(args[0])
if self.files[name]['masked']:
    raise dbus.exceptions.DBusException(
        'Unit %s is masked.' % name,
        name='org.freedesktop.systemd1.UnitMasked')
self.next_job_id += 1
job = '/org/freedesktop/systemd1/job/%d' % self.next_job_id
result = 'failed' if name in self.failing else 'done'
objects[self.units[name]].UpdateProperties(
    'org.freedesktop.systemd1.Unit',
    {'ActiveState': 'failed' if result == 'failed' else 'active'})
def finish(self=self, job_id=self.next_job_id, job=job, name=name,
           result=result):
    self.EmitSignal('org.freedesktop.systemd1.Manager', 'JobRemoved', 'uoss',
                    [dbus.UInt32(job_id), dbus.ObjectPath(job), name, result])
GLib.timeout_add(50, finish)
ret = dbus.ObjectPath(job)
''')
dbus.Interface(obj, T).Setup()
print('ready')
)PY";

// The bus: everything allowed, except StartUnit for "nobody".
const char kBusConfig[] = R"XML(<busconfig>
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

// A private system bus with the systemd double, shared by the suite.
class NTServiceBusTest : public ::testing::Test {
 protected:
  struct Bus {
    TempFolder folder;
    ChildProcess daemon;
    std::unique_ptr<ScopedEnv> env;
    ChildProcess mock;
  };

  static void SetUpTestSuite() {
    const std::string python = "/usr/bin/python3";
    if (std::system("/usr/bin/python3 -c 'import dbusmock, gi' 2>/dev/null") !=
            0 ||
        ::access("/usr/bin/dbus-daemon", X_OK) != 0) {
      skip_ = "no python3 with dbusmock, or no dbus-daemon";
      return;
    }
    bus_.reset(new Bus);
    std::string config = kBusConfig;
    config.replace(config.find("@SOCKET@"), 8, bus_->folder.File("bus"));
    if (!bus_->daemon.Start(
            {"/usr/bin/dbus-daemon",
             "--config-file=" + bus_->folder.Write("bus.conf", config),
             "--nofork", "--print-address=1"}) ||
        !bus_->daemon.ReadLine(&address_)) {
      skip_ = "the private bus did not start";
      return;
    }
    ::chmod(bus_->folder.File("bus").c_str(), 0777);
    bus_->env.reset(new ScopedEnv("DBUS_SYSTEM_BUS_ADDRESS", address_));
    if (!bus_->mock.Start({python, "-m", "dbusmock", "--template", "systemd",
                           "-l", bus_->folder.File("mock.log")})) {
      skip_ = "dbusmock did not start";
      return;
    }
    const std::string owned =
        "dbus-send --bus='" + address_ +
        "' --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
        "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.systemd1";
    for (int i = 0; i < 200 && Shell(owned + " 2>/dev/null").find("true") ==
                                   std::string::npos;
         ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const std::string out =
        Shell(python + " " + bus_->folder.Write("extend.py", kExtension) +
              " '" + address_ + "' 2>&1");
    if (out != "ready") skip_ = "extending the systemd double failed: " + out;
  }
  static void TearDownTestSuite() { bus_.reset(); }

  void SetUp() override {
    if (!skip_.empty()) GTEST_SKIP() << skip_;
  }

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

  static std::string address_, skip_;
  static std::unique_ptr<Bus> bus_;
};

std::string NTServiceBusTest::address_, NTServiceBusTest::skip_;
std::unique_ptr<NTServiceBusTest::Bus> NTServiceBusTest::bus_;

// Automatic start comes back as manual start after disable() and enable();
// a copy shares the opened unit.
TEST_F(NTServiceBusTest, DisableThenEnableGivesManualStart) {
  AddService("boot.service", "automatic");
  NT_Service service("boot");
  service.open();
  ASSERT_EQ("enabled", FileState("boot.service"));
  EXPECT_TRUE(service.isEnabled());

  service.disable();
  EXPECT_EQ("masked", FileState("boot.service"));
  EXPECT_FALSE(service.isEnabled());
  const std::string masked = Catch([&] { service.run(); });
  EXPECT_EQ(" Unit boot.service is masked.", masked.substr(masked.find(' ')));
  EXPECT_FALSE(service.isRunning());

  service.enable();
  EXPECT_EQ("disabled", FileState("boot.service"));  // startable, not at boot
  EXPECT_TRUE(service.isEnabled());
  service.run();
  EXPECT_TRUE(service.isRunning());
  NT_Service copy(service);
  copy.stop();
  EXPECT_FALSE(service.isRunning());
  EXPECT_NE(std::string::npos,
            Double("com.kelvane.test.Systemd.Reloads", "").find("uint32 2"));
}

TEST_F(NTServiceBusTest, MissingUnitAndFailedJobThrow) {
  NT_Service missing("no-such-service");
  EXPECT_EQ(Err(ENOENT, "Unit no-such-service.service not found."),
            Catch([&] { missing.open(); }));

  AddService("broken.service", "manual");
  Double("com.kelvane.test.Systemd.FailStarts", "string:broken.service");
  NT_Service broken("broken");
  broken.open();
  EXPECT_EQ(Err(EIO), Catch([&] { broken.run(); }));
  EXPECT_FALSE(broken.isRunning());
}

TEST_F(NTServiceBusTest, AccessDeniedByTheBus) {
  AddService("guarded.service", "manual");
  std::string answer;
  ASSERT_TRUE(testsupport::RunUnprivileged(
      []() -> std::string {
        NT_Service service("guarded");
        const std::string opened = Catch([&] { service.open(); });
        if (opened != "no error") return "open: " + opened;
        return Catch([&] { service.run(); });
      },
      &answer))
      << answer;
  EXPECT_EQ(0u, answer.find(Err(EACCES, "Rejected send message"))) << answer;
  EXPECT_NE(std::string::npos, answer.find("member=\"StartUnit\"")) << answer;
}

// Copies sharing one connection, beside threads opening their own.
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
  if (::stat("/run/systemd/system", &st) != 0 || ::geteuid() != 0) {
    GTEST_SKIP() << "systemd is not this machine's init, or not root";
  }
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
