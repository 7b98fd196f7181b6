#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/socket_listener.h"

namespace vigilo {

// The request channel where there are no abstract socket names (the Mac):
// one Unix-domain socket file per name in a folder of this user's alone,
// "/tmp/vigilo-<uid>", which is created 0700 and refused when it is a link,
// not a folder, or another user's. Each file is named by a hash of the app
// folder's canonical path and the name, so the address follows from the
// user id and the app folder alone, never from the caller's environment.
// Both ends check the other's user (getpeereid on the Mac, SO_PEERCRED on
// Linux). A socket file nobody listens at any more (left by a crash) is
// taken over. Otherwise as `makeSocketNotifications`.
std::unique_ptr<Notifications> makePathSocketNotifications(
    const std::string& appFolder, RunLoop* loop, std::function<void(const std::string& problem)> onProblem = nullptr);

// The folder's path and each name's file: "<folder>/<key>-<name>".
std::string pathSocketFor(const std::string& appFolder, const std::string& name);

// The process listening at `name` of `appFolder`, whoever's it is.
std::optional<SocketPeer> pathSocketListener(const std::string& appFolder, const std::string& name);

}  // namespace vigilo
