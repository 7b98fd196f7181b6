#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/linux/bus_children.h"
#include "platform/linux/linux_fixture.h"
#include "platform/linux/logind.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
constexpr const char* kMock = "org.freedesktop.DBus.Mock";
constexpr const char* kPpd = "net.hadess.PowerProfiles";
constexpr const char* kPpdPath = "/net/hadess/PowerProfiles";
constexpr const char* kAccessDenied =
    "raise dbus.exceptions.DBusException('Access denied', name='org.freedesktop.DBus.Error.AccessDenied')";

// The basic value in the variant at hand, as text (numbers in decimal,
// booleans as true or false; "?" for anything else).
std::string readVariant(sd_bus_message* m) {
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(m, nullptr, &contents) <= 0) return "?";
  sd_bus_message_enter_container(m, 'v', contents);
  const char* text = nullptr;
  std::uint32_t number = 0;
  int flag = 0;
  std::string out = "?";
  if (contents[0] == 's' && sd_bus_message_read(m, "s", &text) > 0) {
    out = text;
  } else if (contents[0] == 'u' && sd_bus_message_read(m, "u", &number) > 0) {
    out = std::to_string(number);
  } else if (contents[0] == 'b' && sd_bus_message_read(m, "b", &flag) > 0) {
    out = flag ? "true" : "false";
  } else {
    sd_bus_message_skip(m, contents);
  }
  sd_bus_message_exit_container(m);
  return out;
}

// A private system bus with python3-dbusmock's logind, reached over the
// test's own connection.
class MockLogind {
 public:
  MockLogind(const std::string& folder, bool withLogind) {
    const int log = ::open((folder + "/dbus.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    daemon_ = std::make_unique<PrivateBus>(log);
    if (withLogind) mock_ = spawnMock("logind", log);
    ::close(log);
    const auto answers = [&] {
      try {
        return inhibitors(), true;
      } catch (const std::runtime_error&) {
        return false;
      }
    };
    if (withLogind && !waitFor(answers, 20s)) {
      throw std::runtime_error("dbusmock's logind didn't come up: " + readFile(folder + "/dbus.log"));
    }
  }
  ~MockLogind() { endChild(mock_); }
  MockLogind(const MockLogind&) = delete;
  MockLogind& operator=(const MockLogind&) = delete;

  const std::string& address() const { return daemon_->address(); }
  // The test's own connection to the bus.
  sd_bus* bus() const { return daemon_->bus(); }
  // Another dbusmock template on this bus, its output to `log`.
  pid_t spawnMock(const std::string& templ, int log) const {
    return spawn({"/usr/bin/python3", "-m", "dbusmock", "--template", templ}, log, log,
                 {"DBUS_SYSTEM_BUS_ADDRESS=" + address()});
  }

  std::vector<Inhibitor> inhibitors() {
    Message reply = call(kPath, kManager, "ListInhibitors", "");
    std::vector<Inhibitor> out;
    sd_bus_message_enter_container(reply.get(), 'a', "(ssssuu)");
    const char *what, *who, *why, *mode;
    std::uint32_t uid, pid;
    while (sd_bus_message_read(reply.get(), "(ssssuu)", &what, &who, &why, &mode, &uid, &pid) > 0) {
      out.push_back(Inhibitor{what, who, why, mode, uid, pid});
    }
    return out;
  }
  // Another program's lock, held until the descriptor closes.
  UniqueFd inhibit(const std::string& what, const std::string& who, const std::string& mode) {
    Message reply = call(kPath, kManager, "Inhibit", "ssss", what.c_str(), who.c_str(), "a test", mode.c_str());
    int fd = -1;
    sd_bus_message_read(reply.get(), "h", &fd);
    return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
  }
  // Replaces or adds a method of the mock (python code in `code`).
  void addMethod(const char* iface, const char* name, const char* in, const char* code, const char* path = kPath) {
    call(path, kMock, "AddMethod", "sssss", iface, name, in, "", code);
  }
  void addObject(const char* path, const char* iface) {
    call(kPath, kMock, "AddObject", "ssa{sv}a(ssss)", path, iface, 0, 0);
  }
  void setLidClosed(bool closed, bool add = false) {
    if (add) call(kPath, kMock, "AddProperty", "ssv", kManager, "LidClosed", "b", static_cast<int>(closed));
    call(kPath, "org.freedesktop.DBus.Properties", "Set", "ssv", kManager, "LidClosed", "b", static_cast<int>(closed));
  }
  void emitPrepareForSleep(bool start) {
    call(kPath, kMock, "EmitSignal", "sssav", kManager, "PrepareForSleep", "b", 1, "b", static_cast<int>(start));
  }
  // The arguments of every call of `method` the mock object at `path` got.
  std::vector<std::vector<std::string>> calls(const char* method, const char* path = kPath) {
    Message reply = call(path, kMock, "GetMethodCalls", "s", method);
    sd_bus_message* m = reply.get();
    std::vector<std::vector<std::string>> out;
    sd_bus_message_enter_container(m, 'a', "(tav)");
    while (sd_bus_message_enter_container(m, 'r', "tav") > 0) {
      sd_bus_message_skip(m, "t");
      sd_bus_message_enter_container(m, 'a', "v");
      out.emplace_back();
      while (sd_bus_message_peek_type(m, nullptr, nullptr) > 0) out.back().push_back(readVariant(m));
      sd_bus_message_exit_container(m);
      sd_bus_message_exit_container(m);
    }
    return out;
  }

 private:
  template <class... Args>
  Message call(const char* path, const char* iface, const char* method, const char* types, Args... args) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus(), kLogind, path, iface, method, &error, &reply, types, args...);
    std::string message = error.message ? error.message : "";
    sd_bus_error_free(&error);
    if (r < 0) throw std::runtime_error(std::string("mock call ") + method + " failed: " + message);
    return Message(reply);
  }

  std::unique_ptr<PrivateBus> daemon_;
  pid_t mock_ = -1;
};

// Each capability's name, with a "+" when it is available.
std::vector<std::string> availability(const std::vector<Capability>& caps) {
  std::vector<std::string> out;
  for (const auto& c : caps) out.push_back(c.name + (c.available ? "+" : ""));
  return out;
}

bool isVigilosHold(const Inhibitor& i) {
  return i.what == "handle-lid-switch:sleep:idle" && i.mode == "block" && i.who == "Vigilo" &&
         i.why.rfind("Keeping", 0) == 0;
}

// Given a fixture tree and dbusmock's logind on a private bus.
class LinuxLogindTest : public LinuxTreeTest {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    if (!pythonCan("import dbusmock")) GTEST_SKIP() << "python3-dbusmock is not installed (scripts/setup)";
    mock_ = std::make_unique<MockLogind>(dir_.path(), true);
  }
  void TearDown() override { endChild(ppd_); }
  std::unique_ptr<Platform> platform() { return LinuxTreeTest::platform(mock_->address()); }
  bool noInhibitors() {
    return waitFor([&] { return mock_->inhibitors().empty(); }, 5s);
  }
  std::unique_ptr<MockLogind> mock_;
  pid_t ppd_ = -1;
};

// Given a laptop's tree: every feature but the power mode is there.
TEST_F(LinuxLogindTest, TheSleepSwitchIsOneBlockLockAndOthersLocksReadAsSleepOff) {
  supply("AC", "type=Mains,online=1");
  supply("BAT0", "type=Battery,status=Charging,charge_now=1000000,charge_full=2000000");
  zone(0, 40000);
  putAll({{"/proc/acpi/button/lid/LID0/state", "state:      open\n"},
          {"/proc/stat", "cpu  1 0 1 1 0 0 0 0 0 0\nbtime 1795243647\n"},
          {"/sys/class/backlight/intel_backlight/type", "raw\n"}});
  auto p = platform();
  const auto caps = p->capabilities();
  EXPECT_EQ(availability(caps),
            (std::vector<std::string>{"sleep switch+", "battery+", "lid+", "thermal+", "processes+", "power mode",
                                      "screen+", "backups, simulators and previews"}));
  EXPECT_EQ(capability(caps, "lid")->detail, "The lid is read from /proc/acpi/button/lid/LID0/state.");
  EXPECT_FALSE(p->power().switchIsShared());
  SetupStatus s = p->power().setupStatus();
  EXPECT_TRUE(s.ready) << s.reason;
  ASSERT_TRUE(noInhibitors()) << "the permission probe leaves nothing behind";
  EXPECT_EQ(p->registry().sleepDisabled(), false);

  ASSERT_TRUE(p->power().setSleepDisabled(true));
  ASSERT_TRUE(p->power().setSleepDisabled(true));  // already held: still one lock
  auto locks = mock_->inhibitors();
  ASSERT_EQ(locks.size(), 1u);
  EXPECT_TRUE(isVigilosHold(locks[0])) << locks[0].what << " / " << locks[0].mode << " / " << locks[0].why;
  EXPECT_EQ(p->registry().sleepDisabled(), true);
  ASSERT_TRUE(p->power().setSleepDisabled(false));
  EXPECT_TRUE(noInhibitors());
  EXPECT_TRUE(p->power().setSleepDisabled(false));  // nothing held: nothing to do

  // Others' locks: only those that stop sleep or the lid read as sleep off.
  struct Row {
    std::string what, who, mode;
    bool sleepOff;
  };
  const std::vector<Row> rows{
      {"sleep", "caffeine", "block", true},
      {"handle-lid-switch", "systemd-inhibit", "block", true},
      {"shutdown:sleep", "Unattended Upgrades Shutdown", "delay", false},
      {"handle-power-key:handle-suspend-key", "gsd-power", "block", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what + " " + row.mode);
    UniqueFd lock = mock_->inhibit(row.what, row.who, row.mode);
    EXPECT_EQ(p->registry().sleepDisabled(), row.sleepOff);
    lock.reset();
    ASSERT_TRUE(noInhibitors());
  }
  // KDE's PowerDevil takes the lid over: the switch works, and says who decides.
  UniqueFd kde = mock_->inhibit("handle-power-key:handle-suspend-key:handle-hibernate-key:handle-lid-switch",
                                "PowerDevil", "block");
  const Capability sw = *capability(p->capabilities(), "sleep switch");
  EXPECT_TRUE(sw.available);
  EXPECT_NE(sw.detail.find("KDE's power management (PowerDevil) handles the lid itself, so its own setting for "
                           "closing the lid decides"),
            std::string::npos)
      << sw.detail;
  kde.reset();

  // The lock dies with the platform, as with the process.
  ASSERT_TRUE(p->power().setSleepDisabled(true));
  p.reset();
  EXPECT_TRUE(noInhibitors());
}

TEST_F(LinuxLogindTest, ARefusedLockOrAMissingLogindOrBusIsTheSetupReasonAndCapabilitiesSayWhy) {
  MockLogind bare(dir_.path(), false);
  auto noLogind = LinuxTreeTest::platform(bare.address());
  SetupStatus s = noLogind->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_EQ(s.reason.rfind("logind (systemd-logind) isn't running on the system bus", 0), 0u) << s.reason;

  // An empty machine without a bus, as in a container: no feature, each saying why.
  auto noBus = LinuxTreeTest::platform(kNoBus);
  const auto caps = noBus->capabilities();
  EXPECT_EQ(availability(caps), (std::vector<std::string>{"sleep switch", "battery", "lid", "thermal", "processes",
                                                          "power mode", "screen", "backups, simulators and previews"}));
  for (const auto& c : caps) EXPECT_FALSE(c.detail.empty()) << c.name;
  s = noBus->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_EQ(s.reason.rfind("There's no system D-Bus here", 0), 0u) << s.reason;
  EXPECT_FALSE(noBus->registry().sleepDisabled().has_value());
  EXPECT_FALSE(noBus->power().sleepNow());

  // polkit's answer to a remote or lingering session.
  mock_->addMethod(kManager, "Inhibit", "ssss", kAccessDenied);
  auto p = platform();
  s = p->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_NE(s.reason.find("logind refused Vigilo's lock that keeps the laptop awake (Access denied): it needs a "
                          "local login session."),
            std::string::npos)
      << s.reason;
  EXPECT_EQ(p->power().setSleepDisabled(true).message(), s.reason);
  const Capability sw = *capability(p->capabilities(), "sleep switch");
  EXPECT_EQ(std::tuple(sw.available, sw.detail), std::tuple(false, s.reason));
  EXPECT_TRUE(mock_->inhibitors().empty());
}

TEST_F(LinuxLogindTest, SleepWakePowerSourceAndHeatArriveAsEvents) {
  supply("AC", "type=Mains,online=0");
  supply("BAT0", "type=Battery,status=Discharging,charge_now=1000000,charge_full=2000000");
  zone(0, 40000);
  auto p = platform();
  std::vector<SystemEvent> seen;
  p->events().subscribe([&](SystemEvent e) { seen.push_back(e); });
  auto arrives = [&](std::size_t count) {
    return waitFor(
        [&] {
          loop_.advance(2.0);
          return seen.size() == count;
        },
        5s);
  };
  mock_->emitPrepareForSleep(true);
  ASSERT_TRUE(arrives(1));
  mock_->emitPrepareForSleep(false);
  ASSERT_TRUE(arrives(2));
  supply("AC", "online=1");
  supply("BAT0", "status=Charging");
  ASSERT_TRUE(arrives(3));
  zone(0, 100000);
  ASSERT_TRUE(arrives(4));
  loop_.advance(2.0);
  EXPECT_EQ(seen, (std::vector<SystemEvent>{SystemEvent::WillSleep, SystemEvent::DidWake,
                                            SystemEvent::PowerSourceChanged, SystemEvent::ThermalStateChanged}));

  p->events().subscribe(nullptr);
  mock_->emitPrepareForSleep(true);
  zone(0, 40000);
  loop_.advance(4.0);
  EXPECT_EQ(seen.size(), 4u) << "unsubscribed: nothing more arrives";
}

TEST_F(LinuxLogindTest, SuspendTheScreenAndTheLidGoThroughLogind) {
  auto p = platform();
  ASSERT_TRUE(p->power().sleepNow());
  EXPECT_EQ(mock_->calls("Suspend"), (std::vector<std::vector<std::string>>{{"false"}}));
  mock_->addMethod(kManager, "Suspend", "b", kAccessDenied);
  EXPECT_EQ(p->power().sleepNow().message(),
            "logind refused to suspend the machine (Access denied); suspending needs a local login session.");

  EXPECT_EQ(p->displays().setBrightness(0.5).message(),
            "No screen backlight found under /sys/class/backlight, so Vigilo can't set the brightness.");
  // The firmware interface is preferred over the raw one.
  putAll({{"/sys/class/backlight/intel_backlight/type", "raw\n"},
          {"/sys/class/backlight/intel_backlight/max_brightness", "19393\n"},
          {"/sys/class/backlight/acpi_video0/type", "firmware\n"},
          {"/sys/class/backlight/acpi_video0/max_brightness", "15\n"},
          {"/sys/class/backlight/acpi_video0/brightness", "6\n"}});
  const char* session = "/org/freedesktop/login1/session/auto";
  mock_->addObject(session, "org.freedesktop.login1.Session");
  mock_->addMethod("org.freedesktop.login1.Session", "SetBrightness", "ssu", "", session);
  mock_->addMethod("org.freedesktop.login1.Session", "Lock", "", "", session);
  EXPECT_TRUE(p->displays().hasBuiltIn());
  EXPECT_EQ(p->displays().brightness(), 0.4);
  ASSERT_TRUE(p->displays().setBrightness(0.5));
  ASSERT_TRUE(p->displays().setBrightness(7.0));  // clamped
  EXPECT_EQ(
      mock_->calls("SetBrightness", session),
      (std::vector<std::vector<std::string>>{{"backlight", "acpi_video0", "8"}, {"backlight", "acpi_video0", "15"}}));
  ASSERT_TRUE(p->displays().lockScreen());
  EXPECT_EQ(mock_->calls("Lock", session).size(), 1u);
  // Without a power-saver hold of its own there is nothing to put back.
  EXPECT_TRUE(p->power().restorePowerMode("lowpowermode", 1));

  // A lid switch among the input devices (gpio-keys on ARM laptops), no
  // /proc/acpi: logind's LidClosed is polled.
  put("/sys/class/input/input2/name", "Lid Switch\n");
  put("/sys/class/input/input2/capabilities/sw", "1\n");
  p = platform();
  mock_->setLidClosed(true, true);
  EXPECT_EQ(p->registry().lidClosed(), true);
  mock_->setLidClosed(false);
  EXPECT_EQ(p->registry().lidClosed(), false);
  put("/proc/acpi/button/lid/LID/state", "state:      closed\n");
  EXPECT_EQ(p->registry().lidClosed(), true) << "the ACPI button wins where there is one";
}

TEST_F(LinuxLogindTest, KillingTheAppReleasesItsLock) {
  const std::string home = dir_.file("home");
  std::filesystem::create_directories(home);
  writeFile(home + "/config.json", R"({"mode": "on"})");
  AppProcess app({"app"}, home, dir_.file("app.txt"), {"DBUS_SYSTEM_BUS_ADDRESS=" + mock_->address()});
  // The setup check's probe lock looks like the hold: wait for the app too.
  ASSERT_TRUE(waitFor(
      [&] {
        auto locks = mock_->inhibitors();
        return std::count_if(locks.begin(), locks.end(), isVigilosHold) == 1 &&
               app.output().find("Awake until you turn it off") != std::string::npos;
      },
      15s))
      << app.output();
  EXPECT_TRUE(fileExists(home + "/hold"));
  app.signal(SIGKILL);
  EXPECT_EQ(app.wait(5s), 128 + SIGKILL);
  EXPECT_TRUE(noInhibitors());
}

// The profile in force and each hold's fields, read over `bus`.
struct ProfileState {
  std::string active;
  std::vector<std::map<std::string, std::string>> holds;
};
std::optional<ProfileState> profileState(sd_bus* bus) {
  auto get = [&](const char* property) {
    sd_bus_message* raw = nullptr;
    sd_bus_call_method(bus, kPpd, kPpdPath, "org.freedesktop.DBus.Properties", "Get", nullptr, &raw, "ss", kPpd,
                       property);
    return Message(raw);
  };
  Message active = get("ActiveProfile");
  Message holds = get("ActiveProfileHolds");
  const char* profile = nullptr;
  if (!active || !holds || sd_bus_message_read(active.get(), "v", "s", &profile) < 0) return std::nullopt;
  ProfileState state{profile, {}};
  sd_bus_message* m = holds.get();
  sd_bus_message_enter_container(m, 'v', "aa{sv}");
  sd_bus_message_enter_container(m, 'a', "a{sv}");
  while (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
    auto& hold = state.holds.emplace_back();
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      const char* key = nullptr;
      sd_bus_message_read(m, "s", &key);
      hold[key] = readVariant(m);
      sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
  }
  return state;
}

// Given a power-profiles-daemon that, as the real one does and dbusmock's
// own template doesn't, drops a hold when its holder's connection closes.
TEST_F(LinuxLogindTest, LowPowerIsOnePowerSaverHoldThatDiesWithTheApp) {
  auto p = platform();
  EXPECT_FALSE(p->power().batteryPowerMode()) << "no power-profiles-daemon: no power mode to read";
  const int log = ::open(dir_.file("ppd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ppd_ = mock_->spawnMock(sourceDir(__FILE__) + "/ppd_hold_owner.py", log);
  ::close(log);
  sd_bus* bus = mock_->bus();
  ASSERT_TRUE(waitFor([&] { return p->power().batteryPowerMode().has_value(); }, 20s))
      << readFile(dir_.file("ppd.log"));
  EXPECT_EQ(std::tuple(p->power().batteryPowerMode()->key, p->power().batteryPowerMode()->value),
            std::tuple("lowpowermode", 0));
  EXPECT_TRUE(capability(p->capabilities(), "power mode")->available);

  ASSERT_TRUE(p->power().setPowerMode("lowpowermode", 1));
  ASSERT_TRUE(p->power().setPowerMode("lowpowermode", 1));  // already held: no second hold
  auto state = profileState(bus);
  ASSERT_TRUE(state);
  EXPECT_EQ(state->active, "power-saver");
  ASSERT_EQ(state->holds.size(), 1u);
  auto& hold = state->holds[0];
  EXPECT_EQ(std::tuple(hold["Profile"], hold["Reason"], hold["ApplicationId"]),
            std::tuple("power-saver", "Saving power while the lid is shut", "vigilo"));
  // Released once: the daemon refuses a second release of the same hold.
  ASSERT_TRUE(p->power().restorePowerMode("lowpowermode", 0));
  ASSERT_TRUE(p->power().restorePowerMode("lowpowermode", 0));
  EXPECT_EQ(profileState(bus)->active, "balanced");

  // The hold is on the platform's own connection, so it ends with the app.
  ASSERT_TRUE(p->power().setPowerMode("lowpowermode", 1));
  p.reset();
  EXPECT_TRUE(waitFor(
      [&] {
        auto after = profileState(bus);
        return after && after->holds.empty() && after->active == "balanced";
      },
      5s));
}

}  // namespace
}  // namespace vigilo::test
