// The hotkey through org.freedesktop.portal.GlobalShortcuts: CreateSession,
// then BindShortcuts, each answered later by a Response signal on the
// request object the call returns; presses arrive as Activated signals.

#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <time.h>
#include <unistd.h>

#include "platform/desktop.h"
#include "platform/linux/linux_desktop.h"
#include "platform/linux/session_bus.h"
#include "platform/threads.h"

namespace vigilo {
namespace {

constexpr const char* kPortal = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kShortcuts = "org.freedesktop.portal.GlobalShortcuts";
constexpr const char* kShortcutId = "cycle-mode";
// How long a binding that couldn't be made waits before the next try.
constexpr int kRetryMs = 30000;

Bus connectSession() { return connectSessionBus(sessionBusAddress(), 5'000'000); }

constexpr const char* kNoBus = "No desktop session bus, so the hotkey can't be bound.";
constexpr const char* kNoPortal =
    "The desktop offers no global shortcuts (the portal's org.freedesktop.portal.GlobalShortcuts), so the hotkey "
    "isn't available.";

// Nothing when the portal answers for GlobalShortcuts on `bus`.
std::optional<std::string> portalMissing(sd_bus* bus) {
  std::uint32_t version = 0;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int r = sd_bus_get_property_trivial(bus, kPortal, kPortalPath, kShortcuts, "version", &error, 'u', &version);
  sd_bus_error_free(&error);
  if (r < 0 || version == 0) return std::string(kNoPortal);
  return std::nullopt;
}

class PortalHotkey final : public Hotkey {
 public:
  PortalHotkey(RunLoop& loop, std::function<void()> pressed)
      : loop_(loop), pressed_(std::move(pressed)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    thread_ = std::thread([this] {
      blockSignalsInThisThread();
      run();
    });
  }
  ~PortalHotkey() override {
    stopping_ = true;
    const std::uint64_t one = 1;
    if (wake_ >= 0) (void)!::write(wake_, &one, sizeof one);
    thread_.join();
    if (wake_ >= 0) ::close(wake_);
  }

  std::optional<std::string> problem() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return problem_;
  }

 private:
  void fail(std::string why) {
    std::lock_guard<std::mutex> lock(mutex_);
    problem_ = std::move(why);
  }

  // The user service starts before the desktop's portal does, and a portal
  // may restart: a binding that couldn't be made or was lost is tried again
  // every 30 s, unless the person declined it.
  // Without any address for a session bus (no DBUS_SESSION_BUS_ADDRESS, no
  // XDG_RUNTIME_DIR, as over SSH) none can appear for this process: it says
  // so once and stops.
  void run() {
    while (!stopping_) {
      lost_ = false;
      bindAndServe();
      if (declined_ || sessionBusAddress().empty()) return;
      waitFor(-1, 0, kRetryMs);
    }
  }

  void bindAndServe() {
    session_.clear();
    Bus bus = connectSession();
    if (!bus) return fail(kNoBus);
    if (auto missing = portalMissing(bus.get())) return fail(*missing);
    // Matched before each call, so a Response that comes before the call's
    // own reply is queued, not lost.
    sd_bus_slot* raw = nullptr;
    if (sd_bus_match_signal(bus.get(), &raw, nullptr, nullptr, "org.freedesktop.portal.Request", "Response",
                            &PortalHotkey::onResponse, this) < 0) {
      return fail(kNoPortal);
    }
    Slot responses(raw);
    raw = nullptr;
    if (sd_bus_match_signal(bus.get(), &raw, nullptr, kPortalPath, kShortcuts, "Activated", &PortalHotkey::onActivated,
                            this) < 0) {
      return fail(kNoPortal);
    }
    Slot activations(raw);
    // A portal that restarts forgets the binding: say so rather than wait.
    raw = nullptr;
    if (sd_bus_match_signal(bus.get(), &raw, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                            "NameOwnerChanged", &PortalHotkey::onOwnerChanged, this) < 0) {
      return fail(kNoPortal);
    }
    Slot owners(raw);

    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int r = sd_bus_call_method(bus.get(), kPortal, kPortalPath, kShortcuts, "CreateSession", &error, &reply, "a{sv}", 2,
                               "handle_token", "s", "vigilo_session", "session_handle_token", "s", "vigilo");
    if (!awaitResponse(bus.get(), r, reply, error, "CreateSession")) return;
    if (session_.empty()) return fail("The desktop's portal gave no session for the hotkey, so it isn't available.");
    reply = nullptr;
    r = sd_bus_call_method(bus.get(), kPortal, kPortalPath, kShortcuts, "BindShortcuts", &error, &reply,
                           "oa(sa{sv})sa{sv}", session_.c_str(), 1, kShortcutId, 2, "description", "s",
                           "Cycle Vigilo's mode: Off, When Busy, Always", "preferred_trigger", "s", "CTRL+ALT+LOGO+a",
                           "", 1, "handle_token", "s", "vigilo_bind");
    if (!awaitResponse(bus.get(), r, reply, error, "BindShortcuts")) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      problem_.reset();
    }
    while (!stopping_ && !lost_) {
      if (!pump(bus.get())) return fail("The session bus went away, so the hotkey stopped working.");
    }
  }

  // Sleeps until `fd` has `events`, the destructor asks the thread to stop,
  // or `timeoutMs` passes (-1: no limit). The thread wakes for nothing else,
  // so an idle hotkey costs the machine no wake-ups.
  void waitFor(int fd, short events, int timeoutMs) {
    pollfd fds[2] = {{wake_, POLLIN, 0}, {fd, events, 0}};
    const nfds_t count = fd >= 0 ? 2 : 1;
    while (!stopping_ && ::poll(fds, count, timeoutMs) < 0 && errno == EINTR) {
    }
  }

  // Dispatches what came in, then waits for more; false when the connection
  // is gone.
  bool pump(sd_bus* bus) {
    int r;
    while ((r = sd_bus_process(bus, nullptr)) > 0) {
    }
    if (r < 0) return false;
    const int fd = sd_bus_get_fd(bus);
    const int events = sd_bus_get_events(bus);
    if (fd < 0 || events < 0) return false;
    std::uint64_t until = UINT64_MAX;
    int timeoutMs = -1;
    if (sd_bus_get_timeout(bus, &until) >= 0 && until != UINT64_MAX) {
      timespec now{};
      ::clock_gettime(CLOCK_MONOTONIC, &now);
      const std::uint64_t nowUs = static_cast<std::uint64_t>(now.tv_sec) * 1000000u + now.tv_nsec / 1000;
      timeoutMs = until > nowUs ? static_cast<int>(std::min<std::uint64_t>((until - nowUs + 999) / 1000, 60000)) : 0;
    }
    waitFor(fd, static_cast<short>(events), timeoutMs);
    return true;
  }

  // Waits for the Response to the call that gave `reply`.
  bool awaitResponse(sd_bus* bus, int r, sd_bus_message* reply, sd_bus_error& error, const char* what) {
    const char* path = nullptr;
    if (r >= 0) sd_bus_message_read(reply, "o", &path);
    const std::string request = path != nullptr ? path : "";
    if (reply) sd_bus_message_unref(reply);
    if (r < 0 || request.empty()) {
      std::string why = std::string("The desktop's portal refused ") + what + " (" +
                        (error.message != nullptr ? error.message : std::strerror(-r)) +
                        "), so the hotkey isn't available.";
      sd_bus_error_free(&error);
      fail(why);
      return false;
    }
    sd_bus_error_free(&error);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      awaited_ = request;
      answer_.reset();
    }
    // No time limit: the portal may be asking the person first.
    while (!stopping_ && !lost_) {
      if (!pump(bus)) {
        fail("The session bus went away, so the hotkey isn't available.");
        return false;
      }
      std::lock_guard<std::mutex> lock(mutex_);
      if (answer_) {
        if (*answer_ == 0) return true;
        declined_ = *answer_ == 1;
        problem_ = declined_ ? "The hotkey was declined in the desktop's dialog, so it isn't bound."
                             : "The desktop's portal couldn't bind the hotkey, so it isn't available.";
        return false;
      }
    }
    return false;
  }

  static int onResponse(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalHotkey*>(data);
    const char* path = sd_bus_message_get_path(m);
    std::uint32_t code = 2;
    if (path == nullptr || sd_bus_message_read(m, "u", &code) < 0) return 0;
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (self->awaited_ != path) return 0;
    self->answer_ = code;
    // The session's handle, from CreateSession's results.
    if (sd_bus_message_enter_container(m, 'a', "{sv}") > 0) {
      while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        const char* key = nullptr;
        sd_bus_message_read(m, "s", &key);
        char type = 0;
        const char* contents = nullptr;
        if (key != nullptr && std::strcmp(key, "session_handle") == 0 &&
            sd_bus_message_peek_type(m, &type, &contents) > 0 && contents != nullptr &&
            (std::strcmp(contents, "s") == 0 || std::strcmp(contents, "o") == 0)) {
          const char* handle = nullptr;
          if (sd_bus_message_read(m, "v", contents, &handle) > 0 && handle != nullptr) self->session_ = handle;
        } else {
          sd_bus_message_skip(m, "v");
        }
        sd_bus_message_exit_container(m);
      }
    }
    return 0;
  }

  static int onOwnerChanged(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalHotkey*>(data);
    const char *name = nullptr, *before = nullptr, *after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || name == nullptr) return 0;
    if (std::strcmp(name, kPortal) == 0 && (after == nullptr || *after == '\0')) {
      self->fail("The desktop's portal went away, so the hotkey stopped working; Vigilo binds it again when the "
                 "portal is back.");
      self->lost_ = true;
    }
    return 0;
  }

  static int onActivated(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* self = static_cast<PortalHotkey*>(data);
    const char* session = nullptr;
    const char* id = nullptr;
    if (sd_bus_message_read(m, "os", &session, &id) < 0 || id == nullptr) return 0;
    if (session == nullptr || self->session_ != session || std::strcmp(id, kShortcutId) != 0) return 0;
    self->loop_.post(self->pressed_);
    return 0;
  }

  RunLoop& loop_;
  std::function<void()> pressed_;
  std::atomic<bool> stopping_{false};
  // Written once by the destructor to wake the thread.
  int wake_ = -1;
  // Only the bus thread reads and writes these.
  bool lost_ = false;
  bool declined_ = false;
  mutable std::mutex mutex_;
  std::optional<std::string> problem_;
  std::string awaited_;
  std::optional<std::uint32_t> answer_;
  std::string session_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Hotkey> makePortalHotkey(RunLoop& loop, std::function<void()> pressed) {
  return std::make_unique<PortalHotkey>(loop, std::move(pressed));
}

std::optional<std::string> portalHotkeyUnavailable() {
  Bus bus = connectSession();
  if (!bus) return std::string(kNoBus);
  return portalMissing(bus.get());
}

}  // namespace vigilo
