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

// Unix-domain sockets in the Linux abstract namespace, one per name, whose
// address follows from the user id and the app folder alone (never from
// the caller's environment), so every process of the user reaches the app
// of that folder, and several app folders (tests) never meet. Both ends
// check with SO_PEERCRED that the other is the same user. `loop` may be
// null for a process that only posts.
std::unique_ptr<Notifications> makeSocketNotifications(const std::string& appFolder, RunLoop* loop);

// The address prefix for `appFolder`: "vigilo-<uid>-<key>/", where key is a
// hash of the folder's canonical path; each name is appended to it.
std::string socketNameFor(const std::string& appFolder);

}  // namespace vigilo
