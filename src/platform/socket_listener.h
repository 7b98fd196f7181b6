#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

#include "platform/notifications.h"

namespace vigilo {

// The process listening for `name` of `appFolder`, whoever's it is.
struct SocketPeer {
  pid_t pid = 0;
  uid_t uid = 0;
};
std::optional<SocketPeer> listenerOf(const std::string& appFolder, const std::string& name);

// As `makeSocketNotifications`, for the app. While another process holds
// the address of an observed name, observing it goes on trying, with pauses
// that grow to 2 s; `onProblem` is called on the loop's thread whenever what
// stands in the way changes: a sentence saying who holds which address, or
// "" once every observed name is heard.
std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop,
                                                       std::function<void(const std::string& problem)> onProblem);

}  // namespace vigilo
