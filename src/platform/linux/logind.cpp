#include "platform/linux/logind.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/linux/session_bus.h"
#include "platform/result.h"

namespace vigilo {
namespace {

constexpr const char* kService = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManager = "org.freedesktop.login1.Manager";
// The session of the caller, or without one the user's display session
// (org.freedesktop.login1(5), "Session Objects").
constexpr const char* kAutoSessionPath = "/org/freedesktop/login1/session/auto";
constexpr const char* kSession = "org.freedesktop.login1.Session";

// logind answers in milliseconds; polkit may take a moment. The main thread
// never waits longer than this for one call.
constexpr std::uint64_t kLogindCallTimeoutMicros = 5'000'000;

// Frees an sd_bus_error on every path out.
class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error* get() { return &error_; }

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

BusFailure classify(int r, const sd_bus_error* e) {
  if (e != nullptr && sd_bus_error_is_set(e)) {
    if (sd_bus_error_has_names(e, SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
                               "org.freedesktop.DBus.Error.Spawn.ServiceNotFound",
                               "org.freedesktop.DBus.Error.Spawn.ChildExited")) {
      return BusFailure::NoLogind;
    }
    if (sd_bus_error_has_names(e, SD_BUS_ERROR_ACCESS_DENIED, SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED,
                               SD_BUS_ERROR_AUTH_FAILED, "org.freedesktop.login1.OperationInProgress")) {
      return BusFailure::Refused;
    }
    return BusFailure::Failed;
  }
  if (r == -EACCES || r == -EPERM) return BusFailure::Refused;
  return BusFailure::Failed;
}

// How long a failed connect is taken as the answer before trying again:
// half a minute at first, twice as long after each further failure, at most
// ten minutes (a machine without a system bus, as a container, keeps it so).
constexpr double kNoBusRetrySeconds = 30;
constexpr double kNoBusRetryLimit = 600;

double monotonicSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

bool connectionBroke(int r) {
  return r == -ECONNRESET || r == -ENOTCONN || r == -EPIPE || r == -ESHUTDOWN || r == -ECONNREFUSED;
}

}  // namespace

void Logind::BusCloser::operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
void Logind::SlotCloser::operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }

Logind::Logind(std::string address, RunLoop& loop) : address_(std::move(address)), loop_(loop) {}

Logind::~Logind() {
  *alive_ = false;
  disconnect();
}

sd_bus* Logind::connection(BusFailure& failure, std::string& message) {
  if (bus_ && sd_bus_is_open(bus_.get()) > 0) return bus_.get();
  disconnect();
  const double now = monotonicSeconds();
  if (now < retryAt_) {
    failure = BusFailure::NoBus;
    message = noBusMessage_;
    return nullptr;
  }
  sd_bus* raw = nullptr;
  int r = 0;
  if (address_.empty()) {
    r = sd_bus_open_system(&raw);
  } else {
    r = sd_bus_new(&raw);
    if (r >= 0) {
      std::unique_ptr<sd_bus, BusCloser> fresh(raw);
      raw = nullptr;
      if ((r = sd_bus_set_address(fresh.get(), address_.c_str())) >= 0 &&
          (r = sd_bus_set_bus_client(fresh.get(), 1)) >= 0 && (r = sd_bus_start(fresh.get())) >= 0) {
        raw = fresh.release();
      }
    }
  }
  if (r < 0 || raw == nullptr) {
    failure = BusFailure::NoBus;
    message = errnoMessage("connecting to the system bus", -r);
    noBusMessage_ = message;
    retryDelay_ = retryDelay_ > 0 ? std::min(retryDelay_ * 2, kNoBusRetryLimit) : kNoBusRetrySeconds;
    retryAt_ = now + retryDelay_;
    return nullptr;
  }
  retryAt_ = 0;
  retryDelay_ = 0;
  bus_.reset(raw);
  sd_bus_set_method_call_timeout(raw, kLogindCallTimeoutMicros);
  // Never wait for a password: a refusal is an answer.
  sd_bus_set_allow_interactive_authorization(raw, 0);
  if (sleepHandler_) subscribe();
  return raw;
}

void Logind::disconnect() {
  if (watch_) loop_.unwatch(*watch_);
  watch_.reset();
  sleepSlot_.reset();
  bus_.reset();
}

template <class T>
BusAnswer<T> Logind::failed(int r, const sd_bus_error* error, const std::string& what) {
  BusAnswer<T> a;
  a.failure = classify(r, error);
  if (error != nullptr && sd_bus_error_is_set(error) && error->message != nullptr) {
    a.message = error->message;
  } else {
    a.message = errnoMessage(what, -r);
  }
  if (connectionBroke(r) && !(error != nullptr && sd_bus_error_is_set(error))) {
    // The next call opens a new connection.
    disconnect();
    if (a.failure == BusFailure::Failed && r == -ECONNREFUSED) a.failure = BusFailure::NoBus;
  }
  return a;
}

BusAnswer<UniqueFd> Logind::inhibit(const std::string& what, const std::string& who, const std::string& why,
                                    const std::string& mode) {
  BusAnswer<UniqueFd> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_call_method(bus, kService, kManagerPath, kManager, "Inhibit", error.get(), &raw, "ssss", what.c_str(),
                             who.c_str(), why.c_str(), mode.c_str());
  Message reply(raw);
  if (r < 0) return failed<UniqueFd>(r, error.get(), "asking logind for a lock");
  int fd = -1;
  r = sd_bus_message_read(reply.get(), "h", &fd);
  if (r < 0) return failed<UniqueFd>(r, nullptr, "reading logind's lock");
  // The message owns its descriptor and closes it with the message; the
  // lock must outlive it, and must not leak into programs Vigilo starts.
  const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (own < 0) return failed<UniqueFd>(-errno, nullptr, "keeping logind's lock");
  a.value = UniqueFd(own);
  return a;
}

BusAnswer<std::vector<Inhibitor>> Logind::listInhibitors() {
  BusAnswer<std::vector<Inhibitor>> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_call_method(bus, kService, kManagerPath, kManager, "ListInhibitors", error.get(), &raw, "");
  Message reply(raw);
  if (r < 0) return failed<std::vector<Inhibitor>>(r, error.get(), "listing logind's locks");
  r = sd_bus_message_enter_container(reply.get(), 'a', "(ssssuu)");
  if (r < 0) return failed<std::vector<Inhibitor>>(r, nullptr, "reading logind's locks");
  std::vector<Inhibitor> list;
  for (;;) {
    const char *what = nullptr, *who = nullptr, *why = nullptr, *mode = nullptr;
    std::uint32_t uid = 0, pid = 0;
    r = sd_bus_message_read(reply.get(), "(ssssuu)", &what, &who, &why, &mode, &uid, &pid);
    if (r < 0) return failed<std::vector<Inhibitor>>(r, nullptr, "reading logind's locks");
    if (r == 0) break;
    list.push_back(Inhibitor{what, who, why, mode, uid, pid});
  }
  a.value = std::move(list);
  return a;
}

BusAnswer<bool> Logind::lidClosed() {
  BusAnswer<bool> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  int closed = 0;
  int r = sd_bus_get_property_trivial(bus, kService, kManagerPath, kManager, "LidClosed", error.get(), 'b', &closed);
  if (r < 0) return failed<bool>(r, error.get(), "reading the lid from logind");
  a.value = closed != 0;
  return a;
}

BusAnswer<bool> Logind::suspend() {
  BusAnswer<bool> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  int r = sd_bus_call_method(bus, kService, kManagerPath, kManager, "Suspend", error.get(), nullptr, "b", 0);
  if (r < 0) return failed<bool>(r, error.get(), "asking logind to suspend");
  a.value = true;
  return a;
}

BusAnswer<bool> Logind::setBrightness(const std::string& subsystem, const std::string& name, std::uint32_t value) {
  BusAnswer<bool> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  int r = sd_bus_call_method(bus, kService, kAutoSessionPath, kSession, "SetBrightness", error.get(), nullptr, "ssu",
                             subsystem.c_str(), name.c_str(), value);
  if (r < 0) return failed<bool>(r, error.get(), "setting the brightness through logind");
  a.value = true;
  return a;
}

BusAnswer<bool> Logind::lockSession() {
  BusAnswer<bool> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  int r = sd_bus_call_method(bus, kService, kAutoSessionPath, kSession, "Lock", error.get(), nullptr, "");
  if (r < 0) return failed<bool>(r, error.get(), "asking logind to lock the session");
  a.value = true;
  return a;
}

BusAnswer<bool> Logind::sessionLocked() {
  BusAnswer<bool> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  BusError error;
  int locked = 0;
  int r = sd_bus_get_property_trivial(bus, kService, kAutoSessionPath, kSession, "LockedHint", error.get(), 'b',
                                      &locked);
  if (r < 0) return failed<bool>(r, error.get(), "reading whether the session is locked");
  a.value = locked != 0;
  return a;
}

namespace {
struct ProfilesService {
  const char* name;
  const char* path;
};
constexpr ProfilesService kProfileServices[] = {
    {"org.freedesktop.UPower.PowerProfiles", "/org/freedesktop/UPower/PowerProfiles"},
    {"net.hadess.PowerProfiles", "/net/hadess/PowerProfiles"},
};
}  // namespace

BusAnswer<std::string> Logind::activeProfile() {
  BusAnswer<std::string> a;
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  for (const ProfilesService& service : kProfileServices) {
    BusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(bus, service.name, service.path, "org.freedesktop.DBus.Properties", "Get", error.get(),
                               &raw, "ss", service.name, "ActiveProfile");
    Message reply(raw);
    if (r < 0) {
      a = failed<std::string>(r, error.get(), "reading the power profile");
      if (a.failure == BusFailure::NoLogind) continue;  // try the older name
      return a;
    }
    const char* profile = nullptr;
    if (sd_bus_message_enter_container(reply.get(), 'v', "s") < 0 || sd_bus_message_read(reply.get(), "s", &profile) < 0 ||
        profile == nullptr) {
      a.failure = BusFailure::Failed;
      a.message = "power-profiles-daemon gave an unreadable profile";
      return a;
    }
    profiles_ = &service - kProfileServices;
    a.value = profile;
    a.failure = BusFailure::None;
    return a;
  }
  a.message = "power-profiles-daemon isn't running";
  return a;
}

BusAnswer<std::uint32_t> Logind::holdProfile(const std::string& profile, const std::string& reason,
                                             const std::string& applicationId) {
  BusAnswer<std::uint32_t> a;
  if (!profiles_ && !activeProfile().ok()) {
    a.failure = BusFailure::NoLogind;
    a.message = "power-profiles-daemon isn't running";
    return a;
  }
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  const ProfilesService& service = kProfileServices[*profiles_];
  BusError error;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_call_method(bus, service.name, service.path, service.name, "HoldProfile", error.get(), &raw, "sss",
                             profile.c_str(), reason.c_str(), applicationId.c_str());
  Message reply(raw);
  if (r < 0) return failed<std::uint32_t>(r, error.get(), "holding the power profile");
  std::uint32_t cookie = 0;
  if (sd_bus_message_read(reply.get(), "u", &cookie) < 0) {
    a.failure = BusFailure::Failed;
    a.message = "power-profiles-daemon gave no hold cookie";
    return a;
  }
  a.value = cookie;
  return a;
}

BusAnswer<bool> Logind::releaseProfile(std::uint32_t cookie) {
  BusAnswer<bool> a;
  if (!profiles_) {
    a.failure = BusFailure::NoLogind;
    a.message = "power-profiles-daemon isn't running";
    return a;
  }
  sd_bus* bus = connection(a.failure, a.message);
  if (bus == nullptr) return a;
  const ProfilesService& service = kProfileServices[*profiles_];
  BusError error;
  int r = sd_bus_call_method(bus, service.name, service.path, service.name, "ReleaseProfile", error.get(), nullptr,
                             "u", cookie);
  if (r < 0) return failed<bool>(r, error.get(), "releasing the power profile");
  a.value = true;
  return a;
}

void Logind::watchSleep(std::function<void(bool)> fn) {
  sleepHandler_ = std::move(fn);
  if (!sleepHandler_) {
    if (watch_) loop_.unwatch(*watch_);
    watch_.reset();
    sleepSlot_.reset();
    return;
  }
  BusFailure failure = BusFailure::None;
  std::string message;
  // Without a bus there is nothing to watch; a later call that connects
  // subscribes then.
  if (connection(failure, message) != nullptr && !sleepSlot_) subscribe();
}

void Logind::subscribe() {
  sd_bus_slot* slot = nullptr;
  if (sd_bus_match_signal(bus_.get(), &slot, kService, kManagerPath, kManager, "PrepareForSleep", onPrepareForSleep,
                          this) < 0) {
    return;
  }
  sleepSlot_.reset(slot);
  const int fd = sd_bus_get_fd(bus_.get());
  if (fd >= 0 && !watch_) watch_ = loop_.watchReadable(fd, [this] { dispatch(); });
}

void Logind::dispatch() {
  if (!bus_) return;
  // Synchronous calls read ahead and queue signals without the socket
  // staying readable, so drain everything that is queued.
  for (int i = 0; i < 64; ++i) {
    int r = sd_bus_process(bus_.get(), nullptr);
    if (r < 0) {
      disconnect();
      return;
    }
    if (r == 0) break;
  }
  if (sd_bus_is_open(bus_.get()) <= 0) disconnect();
}

int Logind::onPrepareForSleep(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* self = static_cast<Logind*>(userdata);
  int start = 0;
  if (sd_bus_message_read(m, "b", &start) < 0 || !self->sleepHandler_) return 0;
  // Delivered from the loop, not from inside sd_bus_process: the handler
  // may well call logind again.
  std::weak_ptr<bool> alive = self->alive_;
  self->loop_.post([self, alive, start] {
    auto a = alive.lock();
    if (!a || !*a || !self->sleepHandler_) return;
    auto fn = self->sleepHandler_;
    fn(start != 0);
  });
  return 0;
}

}  // namespace vigilo
