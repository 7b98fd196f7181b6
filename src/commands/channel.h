#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>

#include "platform/notifications.h"

namespace vigilo {

inline constexpr const char* kRequestNotification = "com.tarnwell.Vigilo.request";
inline constexpr const char* kRepliesFolder = "replies";
// The running app holds a lock on this file in the app folder; it also
// holds the app's process id.
inline constexpr const char* kAppLockFile = "app.lock";
// The time-out text on a Mac; `timeoutError()` gives this machine's.
inline constexpr const char* kTimeoutError = "Vigilo didn't answer. Is it running? Open /Applications/Vigilo.app";
// The same, telling how to start the app on Linux.
inline constexpr const char* kTimeoutErrorLinux =
    "Vigilo didn't answer. Is it running? Start it with: vigilo app (or systemctl --user start vigilo)";
// Set to anything but "" or "0", the tool never starts the app itself (tests
// set it so that no app is ever started on the real machine).
inline constexpr const char* kNoAutostartVariable = "VIGILO_NO_AUTOSTART";
// The machine an app folder belongs to, written by the app when it starts:
// {"machine": "real"} or {"machine": "sim", "file": <state file>}.
inline constexpr const char* kMachineFile = "machine.json";
// Request key: the time (seconds since 1970) when the caller gives up
// waiting. The app drops a request it could not answer before then, so
// nothing the caller reported as failed is carried out later.
inline constexpr const char* kDeadlineKey = "deadline";
// Replies are needed this long before the caller's deadline to count.
inline constexpr double kAnswerMargin = 0.25;

std::string timeoutError();

// The simulated laptop's state file that `appFolder` belongs to, "" for the
// real machine, or nothing when the folder records no machine.
std::optional<std::string> recordedMachine(const std::string& appFolder);
// Records which machine `appFolder` belongs to ("" for the real one).
bool recordMachine(const std::string& appFolder, const std::string& simulateFile);
// "the simulated laptop FILE" or "this machine", for messages.
std::string machineName(const std::string& simulateFile);

// The running app's process id, or nothing when no app holds the lock of
// `appFolder`.
std::optional<pid_t> runningApp(const std::string& appFolder);

// Starts the app for `appFolder` in the background and waits until the
// starting command is done: through the systemd user unit when it is
// installed, else as a detached `vigilo app` whose output goes to "app.log"
// in the app folder: on the simulated laptop named by VIGILO_SIMULATE, else
// on the machine the folder records, else on this machine.
bool launchApp(const std::string& appFolder);

// The tool side of the request channel.
class RequestClient {
 public:
  explicit RequestClient(std::string appFolder);

  // Sends one request and waits for its reply, polling every 0.05 s and
  // waking at once when the reply file arrives. With no reply in `timeout`
  // seconds and no app running, starts the app once and tries again; then
  // gives the time-out reply.
  nlohmann::json send(const std::string& cmd, const nlohmann::json& args, double timeout);

  // Whether the last `send` started the app.
  bool launched() const { return launched_; }

 private:
  // One request; `connectWait` seconds to keep trying to reach an app that is
  // still starting.
  std::optional<nlohmann::json> attempt(const std::string& cmd, const nlohmann::json& args, double timeout,
                                        double connectWait);

  std::string appFolder_;
  std::unique_ptr<Notifications> notifications_;
  bool launched_ = false;
};

// The app side: writes a reply as "<replies>/<id>.json", whole or not at all.
bool writeReply(const std::string& appFolder, const std::string& id, const nlohmann::json& reply);

}  // namespace vigilo
