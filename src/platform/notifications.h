#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/result.h"
#include "platform/run_loop.h"

namespace vigilo {

// Notifications between the processes of one user's Vigilo: the app
// observes a name, the command-line tool and the agents' hooks post to it.
// A payload is one text (the request's JSON). Delivery is one-way; answers
// travel as reply files.
class Notifications {
 public:
  Notifications() = default;
  Notifications(const Notifications&) = delete;
  Notifications& operator=(const Notifications&) = delete;
  virtual ~Notifications() = default;

  // App side: calls `handler` on the loop's thread with every payload posted
  // under `name` by a process of the same user; anything from another user
  // is dropped. Fails with a plain-English reason when the endpoint cannot
  // be set up. Needs the run loop given at creation.
  virtual Result observe(const std::string& name, std::function<void(std::string payload)> handler) = 0;
  // Stops observing every name.
  virtual void stopObserving() = 0;

  // Tool side: hands `payload` to the observer of `name`. Fails at once, and
  // says so, when no process observes it (the app is not running).
  virtual Result post(const std::string& name, const std::string& payload) = 0;
};

// Unix-domain sockets, one per name, in a private folder (0700) of the
// user's runtime folder, keyed by the app folder so that several app folders
// (tests) never meet. `loop` may be null for a process that only posts.
std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop);

// The folder holding the sockets for `appFolder`:
// "$XDG_RUNTIME_DIR/vigilo/<key>", or "/tmp/vigilo-<uid>/<key>" without a
// runtime folder.
std::string socketFolderFor(const std::string& appFolder);

}  // namespace vigilo
