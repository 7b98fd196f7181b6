#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include <nlohmann/json.hpp>

#include "platform/notifications.h"

namespace vigilo {

inline constexpr const char* kRequestNotification = "com.tarnwell.Vigilo.request";
inline constexpr const char* kRepliesFolder = "replies";
// The running app holds a lock on this file in the app folder; it also
// holds the app's process id.
inline constexpr const char* kAppLockFile = "app.lock";
inline constexpr const char* kTimeoutError = "Vigilo didn't answer. Is it running? Open /Applications/Vigilo.app";

// The running app's process id, or nothing when no app holds the lock of
// `appFolder`.
std::optional<pid_t> runningApp(const std::string& appFolder);

// Starts the app for `appFolder` in the background and waits until the
// starting command is done: through the systemd user unit when it is
// installed, else as a detached `vigilo app` (with `--simulate` and the
// file in VIGILO_SIMULATE when that is set) whose output goes to "app.log"
// in the app folder.
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
