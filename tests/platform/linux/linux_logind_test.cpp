#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "e2e/app_process.h"
#include "engine/engine.h"
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

// The arguments of every call of `method` a dbusmock object at `service`
// and `path` got, as text (numbers in decimal, booleans as true or false).
std::vector<std::vector<std::string>> methodCalls(sd_bus* bus, const char* service, const char* path,
                                                  const std::string& method) {
  std::vector<std::vector<std::string>> out;
  sd_bus_message* raw = nullptr;
  if (sd_bus_call_method(bus, service, path, kMock, "GetMethodCalls", nullptr, &raw, "s", method.c_str()) < 0) {
    throw std::runtime_error("mock call GetMethodCalls failed");
  }
  Message reply(raw);
  sd_bus_message_enter_container(raw, 'a', "(tav)");
  while (sd_bus_message_enter_container(raw, 'r', "tav") > 0) {
    std::uint64_t when = 0;
    sd_bus_message_read(raw, "t", &when);
    sd_bus_message_enter_container(raw, 'a', "v");
    std::vector<std::string> args;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(raw, &type, &contents) > 0) {
      sd_bus_message_enter_container(raw, 'v', contents);
      if (contents[0] == 's') {
        const char* text = nullptr;
        sd_bus_message_read(raw, "s", &text);
        args.emplace_back(text);
      } else if (contents[0] == 'u') {
        std::uint32_t u = 0;
        sd_bus_message_read(raw, "u", &u);
        args.push_back(std::to_string(u));
      } else if (contents[0] == 'b') {
        int b = 0;
        sd_bus_message_read(raw, "b", &b);
        args.emplace_back(b ? "true" : "false");
      } else {
        sd_bus_message_skip(raw, contents);
        args.emplace_back("?");
      }
      sd_bus_message_exit_container(raw);
    }
    sd_bus_message_exit_container(raw);
    sd_bus_message_exit_container(raw);
    out.push_back(std::move(args));
  }
  return out;
}

// A private dbus-daemon standing in for the system bus, with
// python3-dbusmock's logind template on it. The test talks to the mock over
// its own connection, independent of the code under test.
class MockLogind {
 public:
  MockLogind(const std::string& folder, bool withLogind) {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) {
      missing_ = "dbus-daemon is not installed (scripts/setup installs it)";
      return;
    }
    if (!pythonCan("import dbusmock")) {
      missing_ = "python3-dbusmock is not installed for /usr/bin/python3 (scripts/setup installs it)";
      return;
    }
    const int log = ::open((folder + "/dbus.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    daemon_ = std::make_unique<PrivateBus>(log);
    if (withLogind) mock_ = spawnMock("logind", log);
    ::close(log);
    if (withLogind && !waitFor([&] { return hasOwner(); }, 20s)) {
      throw std::runtime_error("dbusmock's logind didn't come up: " + readFile(folder + "/dbus.log"));
    }
  }
  ~MockLogind() { endChild(mock_); }
  MockLogind(const MockLogind&) = delete;
  MockLogind& operator=(const MockLogind&) = delete;

  const std::string& missing() const { return missing_; }
  const std::string& address() const { return daemon_->address(); }
  // The test's own connection to the bus.
  sd_bus* bus() const { return daemon_->bus(); }
  // Another dbusmock template on this bus, its output to `log`.
  pid_t spawnMock(const std::string& templ, int log) const {
    return spawn({"/usr/bin/python3", "-m", "dbusmock", "--template", templ}, log, log,
                 {"DBUS_SYSTEM_BUS_ADDRESS=" + address()});
  }

  std::vector<Inhibitor> inhibitors() {
    Message reply = call(kManager, "ListInhibitors", "");
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
    Message reply = call(kManager, "Inhibit", "ssss", what.c_str(), who.c_str(), "a test", mode.c_str());
    int fd = -1;
    sd_bus_message_read(reply.get(), "h", &fd);
    return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
  }

  // Replaces or adds a method of the mock (python code in `code`).
  void addMethod(const std::string& iface, const std::string& name, const std::string& in, const std::string& out,
                 const std::string& code, const char* path = kPath) {
    callAt(path, kMock, "AddMethod", "sssss", iface.c_str(), name.c_str(), in.c_str(), out.c_str(), code.c_str());
  }
  void addProperty(const char* name, bool value) {
    call(kMock, "AddProperty", "ssv", kManager, name, "b", static_cast<int>(value));
  }
  void setProperty(const char* name, bool value) {
    call("org.freedesktop.DBus.Properties", "Set", "ssv", kManager, name, "b", static_cast<int>(value));
  }
  void emitPrepareForSleep(bool start) {
    sd_bus_message* m = nullptr;
    sd_bus_message_new_method_call(bus(), &m, kLogind, kPath, kMock, "EmitSignal");
    Message msg(m);
    sd_bus_message_append(m, "sss", kManager, "PrepareForSleep", "b");
    sd_bus_message_open_container(m, 'a', "v");
    sd_bus_message_append(m, "v", "b", static_cast<int>(start));
    sd_bus_message_close_container(m);
    send(m);
  }
  std::vector<std::vector<std::string>> calls(const std::string& method, const char* path = kPath) {
    return methodCalls(bus(), kLogind, path, method);
  }
  void addObject(const std::string& path, const std::string& iface) {
    sd_bus_message* m = nullptr;
    sd_bus_message_new_method_call(bus(), &m, kLogind, kPath, kMock, "AddObject");
    Message msg(m);
    sd_bus_message_append(m, "ssa{sv}a(ssss)", path.c_str(), iface.c_str(), 0, 0);
    send(m);
  }

 private:
  bool hasOwner() {
    sd_bus_message* reply = nullptr;
    int has = 0;
    if (sd_bus_call_method(bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", nullptr, &reply, "s", kLogind) < 0) {
      return false;
    }
    Message r(reply);
    sd_bus_message_read(reply, "b", &has);
    return has != 0;
  }
  template <class... Args>
  Message call(const char* iface, const char* method, const char* types, Args... args) {
    return callAt(kPath, iface, method, types, args...);
  }
  template <class... Args>
  Message callAt(const char* path, const char* iface, const char* method, const char* types, Args... args) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus(), kLogind, path, iface, method, &error, &reply, types, args...);
    std::string message = error.message ? error.message : "";
    sd_bus_error_free(&error);
    if (r < 0) throw std::runtime_error(std::string("mock call ") + method + " failed: " + message);
    return Message(reply);
  }
  void send(sd_bus_message* m) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(bus(), m, 0, &error, &reply);
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    if (r < 0) throw std::runtime_error("mock call failed");
  }

  std::string missing_;
  std::unique_ptr<PrivateBus> daemon_;
  pid_t mock_ = -1;
};

bool isVigilosHold(const Inhibitor& i) {
  return i.what == "handle-lid-switch:sleep:idle" && i.mode == "block" && i.who == "Vigilo" &&
         i.why.rfind("Keeping", 0) == 0;
}

// Given a fixture tree and dbusmock's logind on a private bus.
class LinuxLogindTest : public LinuxTreeTest {
 protected:
  void SetUp() override {
    mock_ = std::make_unique<MockLogind>(dir_.path(), true);
    if (!mock_->missing().empty()) GTEST_SKIP() << mock_->missing();
  }
  void TearDown() override { endChild(ppd_); }
  std::unique_ptr<Platform> platform() { return LinuxTreeTest::platform(mock_->address()); }
  // A power-profiles-daemon from dbusmock's `templ`, its output in ppd.log.
  void startProfiles(const std::string& templ) {
    const int log = ::open(dir_.file("ppd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ppd_ = mock_->spawnMock(templ, log);
    ::close(log);
  }
  std::vector<std::vector<std::string>> profileCalls(const char* method) {
    return methodCalls(mock_->bus(), "net.hadess.PowerProfiles", "/net/hadess/PowerProfiles", method);
  }
  std::string ppdLog() const { return readFile(dir_.file("ppd.log")); }
  std::unique_ptr<MockLogind> mock_;
  pid_t ppd_ = -1;
};

TEST_F(LinuxLogindTest, HoldingTakesExactlyOneBlockLockAndReleasingClosesIt) {
  auto p = platform();
  EXPECT_FALSE(p->power().switchIsShared());
  SetupStatus s = p->power().setupStatus();
  EXPECT_TRUE(s.ready) << s.reason;
  // The permission probe leaves nothing behind.
  ASSERT_TRUE(waitFor([&] { return mock_->inhibitors().empty(); }, 5s));
  EXPECT_EQ(p->registry().sleepDisabled(), false);

  ASSERT_TRUE(p->power().setSleepDisabled(true));
  ASSERT_TRUE(p->power().setSleepDisabled(true));  // already held: still one lock
  auto locks = mock_->inhibitors();
  ASSERT_EQ(locks.size(), 1u);
  EXPECT_TRUE(isVigilosHold(locks[0])) << locks[0].what << " / " << locks[0].mode << " / " << locks[0].why;
  EXPECT_EQ(p->registry().sleepDisabled(), true);

  ASSERT_TRUE(p->power().setSleepDisabled(false));
  EXPECT_TRUE(waitFor([&] { return mock_->inhibitors().empty(); }, 5s));
  EXPECT_TRUE(p->power().setSleepDisabled(false));  // nothing held: nothing to do

  // The lock dies with the platform, as with the process.
  ASSERT_TRUE(p->power().setSleepDisabled(true));
  ASSERT_EQ(mock_->inhibitors().size(), 1u);
  p.reset();
  EXPECT_TRUE(waitFor([&] { return mock_->inhibitors().empty(); }, 5s));
}

TEST_F(LinuxLogindTest, OthersLocksReadAsSleepOffAndADesktopThatOwnsTheLidIsNamed) {
  auto p = platform();
  struct Row {
    std::string what, who, mode;
    bool sleepOff;
  };
  const std::vector<Row> rows{
      {"sleep", "caffeine", "block", true},
      {"handle-lid-switch", "systemd-inhibit", "block", true},
      {"shutdown:sleep", "Unattended Upgrades Shutdown", "delay", false},
      {"idle", "GNOME Shell", "block", false},
      {"handle-power-key:handle-suspend-key", "gsd-power", "block", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what + " " + row.mode);
    UniqueFd lock = mock_->inhibit(row.what, row.who, row.mode);
    ASSERT_TRUE(lock);
    EXPECT_EQ(p->registry().sleepDisabled(), row.sleepOff);
    lock.reset();
    ASSERT_TRUE(waitFor([&] { return mock_->inhibitors().empty(); }, 5s));
  }

  // KDE's PowerDevil takes the lid over: the switch works, and says who
  // decides.
  UniqueFd kde = mock_->inhibit("handle-power-key:handle-suspend-key:handle-hibernate-key:handle-lid-switch",
                                "PowerDevil", "block");
  auto caps = p->capabilities();
  const Capability* sw = capability(caps, "sleep switch");
  ASSERT_NE(sw, nullptr);
  EXPECT_TRUE(sw->available);
  EXPECT_NE(sw->detail.find("KDE's power management (PowerDevil) handles the lid itself, so its own setting for "
                            "closing the lid decides"),
            std::string::npos)
      << sw->detail;
}

TEST_F(LinuxLogindTest, ARefusedLockMeansSetupNeedsRepairWithThePlainReason) {
  // polkit's answer to a remote or lingering session.
  mock_->addMethod(kManager, "Inhibit", "ssss", "h",
                   "raise dbus.exceptions.DBusException('Access denied', "
                   "name='org.freedesktop.DBus.Error.AccessDenied')");
  auto p = platform();
  SetupStatus s = p->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_NE(s.reason.find("logind refused Vigilo's lock that keeps the laptop awake (Access denied): it needs a "
                          "local login session."),
            std::string::npos)
      << s.reason;
  Result r = p->power().setSleepDisabled(true);
  EXPECT_FALSE(r);
  EXPECT_EQ(r.message(), s.reason);
  auto caps = p->capabilities();
  const Capability* sw = capability(caps, "sleep switch");
  ASSERT_NE(sw, nullptr);
  EXPECT_FALSE(sw->available);
  EXPECT_EQ(sw->detail, s.reason);

  EXPECT_TRUE(mock_->inhibitors().empty());
}

TEST_F(LinuxLogindTest, WithoutLogindOrWithoutABusTheReasonSaysWhichIsMissing) {
  MockLogind bare(dir_.path(), false);
  auto noLogind = LinuxTreeTest::platform(bare.address());
  SetupStatus s = noLogind->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_EQ(s.reason.rfind("logind (systemd-logind) isn't running on the system bus", 0), 0u) << s.reason;
  EXPECT_FALSE(noLogind->registry().sleepDisabled().has_value());

  auto noBus = LinuxTreeTest::platform(kNoBus);
  s = noBus->power().setupStatus();
  EXPECT_FALSE(s.ready);
  EXPECT_EQ(s.reason.rfind("There's no system D-Bus here", 0), 0u) << s.reason;
  EXPECT_FALSE(noBus->registry().sleepDisabled().has_value());
  EXPECT_FALSE(noBus->power().sleepNow());
}

TEST_F(LinuxLogindTest, SleepAndWakeArriveFromPrepareForSleep) {
  auto p = platform();
  std::vector<SystemEvent> seen;
  p->events().subscribe([&](SystemEvent e) { seen.push_back(e); });
  mock_->emitPrepareForSleep(true);
  ASSERT_TRUE(waitFor(
      [&] {
        loop_.advance(2.0);
        return !seen.empty();
      },
      5s));
  EXPECT_EQ(seen, std::vector<SystemEvent>{SystemEvent::WillSleep});
  mock_->emitPrepareForSleep(false);
  ASSERT_TRUE(waitFor(
      [&] {
        loop_.advance(2.0);
        return seen.size() == 2;
      },
      5s));
  EXPECT_EQ(seen[1], SystemEvent::DidWake);

  // Unsubscribed: nothing more arrives.
  p->events().subscribe(nullptr);
  mock_->emitPrepareForSleep(true);
  loop_.advance(4.0);
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(LinuxLogindTest, PowerSourceAndHeatChangesArriveByPolling) {
  supply("AC", "type=Mains,online=0");
  supply("BAT0", "type=Battery,status=Discharging,charge_now=1000000,charge_full=2000000");
  zone(0, 40000);
  auto p = platform();
  std::vector<SystemEvent> seen;
  p->events().subscribe([&](SystemEvent e) { seen.push_back(e); });
  loop_.advance(2.0);
  EXPECT_TRUE(seen.empty());
  supply("AC", "online=1");
  supply("BAT0", "status=Charging");
  loop_.advance(2.0);
  EXPECT_EQ(seen, std::vector<SystemEvent>{SystemEvent::PowerSourceChanged});
  zone(0, 100000);
  loop_.advance(2.0);
  EXPECT_EQ(seen.back(), SystemEvent::ThermalStateChanged);
  EXPECT_EQ(seen.size(), 2u);
}

TEST_F(LinuxLogindTest, LidFromLogindWhereThereIsNoAcpiButton) {
  // A lid switch among the input devices (gpio-keys on ARM laptops), no
  // /proc/acpi: logind's LidClosed is polled.
  put("/sys/class/input/input2/name", "Lid Switch\n");
  put("/sys/class/input/input2/capabilities/sw", "1\n");
  auto p = platform();
  mock_->addProperty("LidClosed", true);
  EXPECT_EQ(p->registry().lidClosed(), true);
  mock_->setProperty("LidClosed", false);
  EXPECT_EQ(p->registry().lidClosed(), false);
  auto caps = p->capabilities();
  ASSERT_NE(capability(caps, "lid"), nullptr);
  EXPECT_TRUE(capability(caps, "lid")->available);
  EXPECT_EQ(capability(caps, "lid")->detail, "The lid is read from logind's LidClosed, every two seconds.");

  // The ACPI button wins where there is one.
  put("/proc/acpi/button/lid/LID/state", "state:      closed\n");
  EXPECT_EQ(p->registry().lidClosed(), true);
}

TEST_F(LinuxLogindTest, SuspendAndBrightnessGoThroughLogind) {
  auto p = platform();
  ASSERT_TRUE(p->power().sleepNow());
  EXPECT_EQ(mock_->calls("Suspend"), (std::vector<std::vector<std::string>>{{"false"}}));

  mock_->addMethod(kManager, "Suspend", "b", "",
                   "raise dbus.exceptions.DBusException('Access denied', "
                   "name='org.freedesktop.DBus.Error.AccessDenied')");
  Result refused = p->power().sleepNow();
  EXPECT_EQ(refused.message(),
            "logind refused to suspend the machine (Access denied); suspending needs a local login session.");

  // No backlight: said so, nothing sent.
  Result none = p->displays().setBrightness(0.5);
  EXPECT_EQ(none.message(),
            "No screen backlight found under /sys/class/backlight, so Vigilo can't set the brightness.");

  // The firmware interface is preferred over the raw one.
  putAll({{"/sys/class/backlight/intel_backlight/type", "raw\n"},
          {"/sys/class/backlight/intel_backlight/max_brightness", "19393\n"},
          {"/sys/class/backlight/acpi_video0/type", "firmware\n"},
          {"/sys/class/backlight/acpi_video0/max_brightness", "15\n"}});
  const std::string session = "/org/freedesktop/login1/session/auto";
  mock_->addObject(session, "org.freedesktop.login1.Session");
  mock_->addMethod("org.freedesktop.login1.Session", "SetBrightness", "ssu", "", "", session.c_str());
  ASSERT_TRUE(p->displays().setBrightness(0.5));
  ASSERT_TRUE(p->displays().setBrightness(7.0));  // clamped
  EXPECT_EQ(
      mock_->calls("SetBrightness", session.c_str()),
      (std::vector<std::vector<std::string>>{{"backlight", "acpi_video0", "8"}, {"backlight", "acpi_video0", "15"}}));
  EXPECT_FALSE(p->displays().setBuiltInEnabled(false));
  // Without a power-saver hold of its own there is nothing to put back.
  EXPECT_TRUE(p->power().restorePowerMode("lowpowermode", 1));
}

TEST_F(LinuxLogindTest, CapabilitiesNameEveryFeatureAndWhatIsMissing) {
  const std::vector<std::string> names{"sleep switch", "battery",    "lid",   "thermal",
                                       "processes",    "power mode", "screen", "backups, simulators and previews"};
  auto names_of = [](const std::vector<Capability>& caps) {
    std::vector<std::string> out;
    for (const auto& c : caps) out.push_back(c.name);
    return out;
  };
  // An empty machine without a bus, as in a container.
  auto bare = LinuxTreeTest::platform(kNoBus);
  auto caps = bare->capabilities();
  EXPECT_EQ(names_of(caps), names);
  for (const auto& c : caps) {
    EXPECT_FALSE(c.available) << c.name;
    EXPECT_FALSE(c.detail.empty()) << c.name;
  }
  EXPECT_EQ(capability(caps, "processes")->detail, "/proc can't be read, so Vigilo can't see or control processes.");

  // A laptop: everything but the power mode.
  supply("AC", "type=Mains,online=1");
  supply("BAT0", "type=Battery,status=Charging,charge_now=1000000,charge_full=2000000");
  zone(0, 40000);
  putAll({{"/proc/acpi/button/lid/LID0/state", "state:      open\n"},
          {"/proc/stat", "cpu  1 0 1 1 0 0 0 0 0 0\nbtime 1795243647\n"},
          {"/sys/class/backlight/intel_backlight/type", "raw\n"}});
  auto laptop = platform();
  caps = laptop->capabilities();
  EXPECT_EQ(names_of(caps), names);
  for (const auto& c : caps) {
    EXPECT_EQ(c.available, c.name != "power mode" && c.name != "backups, simulators and previews")
        << c.name << ": " << c.detail;
  }
  EXPECT_EQ(capability(caps, "lid")->detail, "The lid is read from /proc/acpi/button/lid/LID0/state.");
}

TEST_F(LinuxLogindTest, KillingTheAppReleasesItsLock) {
  const std::string home = dir_.file("home");
  std::filesystem::create_directories(home);
  writeFile(home + "/config.json", R"({"mode": "on"})");
  AppProcess app({"app"}, home, dir_.file("app.txt"), {"DBUS_SYSTEM_BUS_ADDRESS=" + mock_->address()});
  // The setup check's probe lock looks like the hold for a moment, so wait
  // for the app to say it holds as well.
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
  EXPECT_TRUE(waitFor([&] { return mock_->inhibitors().empty(); }, 5s));
}

TEST_F(LinuxLogindTest, LowPowerIsAPowerSaverHoldTakenOnceAndReleased) {
  auto p = platform();
  EXPECT_FALSE(p->power().batteryPowerMode()) << "no power-profiles-daemon: no power mode to read";
  startProfiles("power_profiles_daemon");
  ASSERT_TRUE(waitFor([&] { return p->power().batteryPowerMode().has_value(); }, 20s)) << ppdLog();
  EXPECT_EQ(p->power().batteryPowerMode()->key, "lowpowermode");
  EXPECT_EQ(p->power().batteryPowerMode()->value, 0);

  ASSERT_TRUE(p->power().setPowerMode("lowpowermode", 1));
  ASSERT_TRUE(p->power().setPowerMode("lowpowermode", 1));  // already held: no second hold
  using Calls = std::vector<std::vector<std::string>>;
  EXPECT_EQ(profileCalls("HoldProfile"),
            (Calls{{"power-saver", "Saving power while the lid is shut", "vigilo"}}));
  ASSERT_TRUE(p->power().restorePowerMode("lowpowermode", 0));
  EXPECT_EQ(profileCalls("ReleaseProfile"), (Calls{{"1"}}));
  ASSERT_TRUE(p->power().restorePowerMode("lowpowermode", 0));
  EXPECT_EQ(profileCalls("ReleaseProfile").size(), 1u) << "released exactly once";
  EXPECT_TRUE(capability(p->capabilities(), "power mode")->available);
}

// A power-profiles-daemon that drops a hold when its holder's connection
// closes, as the real one does; dbusmock's own template keeps it.
const std::string kHoldOwnerTemplate = sourceDir(__FILE__) + "/ppd_hold_owner.py";

// The profile in force and each hold's fields, read over `bus`.
struct ProfileState {
  std::string active;
  std::vector<std::map<std::string, std::string>> holds;
};
std::optional<ProfileState> profileState(sd_bus* bus) {
  ProfileState state;
  auto get = [&](const char* property) {
    sd_bus_message* raw = nullptr;
    sd_bus_call_method(bus, "net.hadess.PowerProfiles", "/net/hadess/PowerProfiles", "org.freedesktop.DBus.Properties",
                       "Get", nullptr, &raw, "ss", "net.hadess.PowerProfiles", property);
    return Message(raw);
  };
  Message activeReply = get("ActiveProfile");
  const char* active = nullptr;
  if (!activeReply || sd_bus_message_read(activeReply.get(), "v", "s", &active) < 0) return std::nullopt;
  state.active = active;
  Message reply = get("ActiveProfileHolds");
  if (!reply) return std::nullopt;
  sd_bus_message* raw = reply.get();
  sd_bus_message_enter_container(raw, 'v', "aa{sv}");
  sd_bus_message_enter_container(raw, 'a', "a{sv}");
  while (sd_bus_message_enter_container(raw, 'a', "{sv}") > 0) {
    std::map<std::string, std::string> hold;
    while (sd_bus_message_enter_container(raw, 'e', "sv") > 0) {
      const char* key = nullptr;
      const char* value = nullptr;
      sd_bus_message_read(raw, "s", &key);
      if (sd_bus_message_read(raw, "v", "s", &value) > 0) hold[key] = value;
      sd_bus_message_exit_container(raw);
    }
    sd_bus_message_exit_container(raw);
    state.holds.push_back(std::move(hold));
  }
  return state;
}

TEST_F(LinuxLogindTest, AKilledAppLeavesNoPowerSaverHoldBehind) {
  startProfiles(kHoldOwnerTemplate);
  sd_bus* raw = mock_->bus();
  ASSERT_TRUE(waitFor([&] { return profileState(raw).has_value(); }, 20s)) << ppdLog();
  ASSERT_EQ(profileState(raw)->active, "balanced");

  // The app's Linux backend in a child of its own, killed while it holds.
  int ready[2];
  ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
  pid_t app = ::fork();
  struct KillOnExit {
    pid_t& pid;
    ~KillOnExit() {
      if (pid > 0) ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }
  } killApp{app};
  if (app == 0) {
    ::close(ready[0]);
    char held = '0';
    // The platform stays alive, as in a running app, until the kill.
    std::unique_ptr<Platform> p;
    try {
      p = platform();
      if (p->power().setPowerMode("lowpowermode", 1)) held = '1';
    } catch (...) {
    }
    if (::write(ready[1], &held, 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  ::close(ready[1]);
  char held = 0;
  pollfd pf{ready[0], POLLIN, 0};
  const bool answered = ::poll(&pf, 1, 20000) > 0 && ::read(ready[0], &held, 1) == 1;
  ::close(ready[0]);
  EXPECT_TRUE(answered && held == '1') << ppdLog();

  auto state = profileState(raw);
  ASSERT_TRUE(state);
  EXPECT_EQ(state->active, "power-saver");
  ASSERT_EQ(state->holds.size(), 1u) << ppdLog();
  EXPECT_EQ(state->holds[0]["Profile"], "power-saver");
  EXPECT_EQ(state->holds[0]["ApplicationId"], "vigilo");
  // The hold belongs to the app's own connection, not one that outlives it
  // (such as this test's).
  const std::string sender = state->holds[0]["Sender"];
  std::uint32_t holderPid = 0;
  sd_bus_message* pidReply = nullptr;
  ASSERT_GE(sd_bus_call_method(raw, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "GetConnectionUnixProcessID", nullptr, &pidReply, "s", sender.c_str()),
            0)
      << "the holder " << sender << " is not on the bus";
  Message pidMessage(pidReply);
  sd_bus_message_read(pidReply, "u", &holderPid);
  EXPECT_EQ(holderPid, static_cast<std::uint32_t>(app));

  ::kill(app, SIGKILL);
  ::waitpid(app, nullptr, 0);
  app = -1;
  EXPECT_TRUE(waitFor(
      [&] {
        auto after = profileState(raw);
        return after && after->holds.empty() && after->active == "balanced";
      },
      5s))
      << ppdLog();
}

TEST_F(LinuxLogindTest, TheScreenLocksAndReadsItsBrightnessThroughLogindAndSysfs) {
  putAll({{"/sys/class/backlight/acpi_video0/type", "firmware\n"},
          {"/sys/class/backlight/acpi_video0/max_brightness", "15\n"},
          {"/sys/class/backlight/acpi_video0/brightness", "6\n"}});
  const std::string session = "/org/freedesktop/login1/session/auto";
  mock_->addObject(session, "org.freedesktop.login1.Session");
  mock_->addMethod("org.freedesktop.login1.Session", "Lock", "", "", "", session.c_str());
  auto p = platform();
  EXPECT_TRUE(p->displays().hasBuiltIn());
  EXPECT_EQ(p->displays().brightness(), 0.4);
  ASSERT_TRUE(p->displays().lockScreen());
  EXPECT_EQ(mock_->calls("Lock", session.c_str()).size(), 1u);
}

}  // namespace
}  // namespace vigilo::test
