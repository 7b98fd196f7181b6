#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/unique_fd.h"
#include "platform/run_loop.h"

namespace vigilo {

// One lock as logind's ListInhibitors shows it.
struct Inhibitor {
  std::string what;  // colon-separated: "handle-lid-switch:sleep:idle"
  std::string who;
  std::string why;
  std::string mode;  // "block" or "delay"
  std::uint32_t uid = 0;
  std::uint32_t pid = 0;
};

// Why a call to logind failed, sorted by what the person can do about it.
enum class BusFailure {
  None,
  NoBus,     // no system bus to connect to (a container, a minimal system)
  NoLogind,  // the bus is there, logind is not
  Refused,   // logind or polkit said no (a remote or lingering session)
  Failed,    // anything else: a broken connection, a time-out
};

// The answer to one call: a value, or the kind of failure and logind's or
// the bus's own words.
template <class T>
struct BusAnswer {
  std::optional<T> value;
  BusFailure failure = BusFailure::None;
  std::string message;
  bool ok() const { return value.has_value(); }
};

// A client of systemd-logind (org.freedesktop.login1, see its D-Bus
// documentation) on the system bus. The connection opens on first use and
// again after it broke, so a logind or bus restart is survived. Every call
// is synchronous, bounded by a short time-out, never asks for a password,
// and must be made on the loop's thread.
class Logind {
 public:
  // `address` empty: the default system bus (DBUS_SYSTEM_BUS_ADDRESS, else
  // /run/dbus/system_bus_socket).
  Logind(std::string address, RunLoop& loop);
  ~Logind();
  Logind(const Logind&) = delete;
  Logind& operator=(const Logind&) = delete;

  // Manager.Inhibit: the lock lives exactly as long as the returned
  // descriptor (close-on-exec) stays open.
  BusAnswer<UniqueFd> inhibit(const std::string& what, const std::string& who, const std::string& why,
                              const std::string& mode);
  BusAnswer<std::vector<Inhibitor>> listInhibitors();
  // Manager.LidClosed (logind sends no change signal for it: poll it).
  BusAnswer<bool> lidClosed();
  // Manager.Suspend(false).
  BusAnswer<bool> suspend();
  // Session.SetBrightness on the caller's session ("session/auto").
  BusAnswer<bool> setBrightness(const std::string& subsystem, const std::string& name, std::uint32_t value);
  // Session.Lock and the session's LockedHint, on the caller's session.
  BusAnswer<bool> lockSession();
  BusAnswer<bool> sessionLocked();

  // power-profiles-daemon on the same system bus (tried as
  // org.freedesktop.UPower.PowerProfiles, then net.hadess.PowerProfiles).
  // A hold lasts as long as this connection: it ends by itself when Vigilo
  // dies, so a crash can never leave the profile changed.
  BusAnswer<std::string> activeProfile();
  BusAnswer<std::uint32_t> holdProfile(const std::string& profile, const std::string& reason,
                                       const std::string& applicationId);
  BusAnswer<bool> releaseProfile(std::uint32_t cookie);

  // Calls `fn(true)` when the machine is about to sleep and `fn(false)`
  // after it woke (Manager.PrepareForSleep), through the loop. An empty
  // function stops it. Signals already received are delivered by
  // `dispatch`, which the loop calls when the bus is readable.
  void watchSleep(std::function<void(bool)> fn);
  void dispatch();

 private:
  struct BusCloser {
    void operator()(sd_bus* bus) const;
  };
  struct SlotCloser {
    void operator()(sd_bus_slot* slot) const;
  };

  // The open connection, or nothing with why.
  sd_bus* connection(BusFailure& failure, std::string& message);
  void disconnect();
  void subscribe();
  static int onPrepareForSleep(sd_bus_message* m, void* userdata, sd_bus_error* error);
  template <class T>
  BusAnswer<T> failed(int r, const sd_bus_error* error, const std::string& what);

  std::string address_;
  RunLoop& loop_;
  // Which power-profiles service answered (an index of the names above).
  std::optional<std::ptrdiff_t> profiles_;
  std::unique_ptr<sd_bus, BusCloser> bus_;
  std::unique_ptr<sd_bus_slot, SlotCloser> sleepSlot_;
  std::optional<WatchId> watch_;
  // After a failed connect: the monotonic second before which no new try is
  // made, the wait that gave it, and what the failure was. A machine
  // without a system bus then costs a rare connect attempt, not several
  // each tick.
  double retryAt_ = 0;
  double retryDelay_ = 0;
  std::string noBusMessage_;
  std::function<void(bool)> sleepHandler_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vigilo
