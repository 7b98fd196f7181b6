#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/seams.h"
#include "platform/desktop.h"

namespace vigilo {

class Engine;
class RelayClient;

// "Busy for 89 min", "Busy for 1.5 hours".
std::string busyFor(int minutes);
// "<name> finished", "… went idle", "… is waiting for you", "… closed".
std::string finishedTitle(const std::string& name, bool processGone, const std::string& state);

// Tells the person when an agent stops or waits for them, as the settings
// ask: the chime (`done_chime`), the desktop notification (`notify_done`)
// and a plain-text ntfy push (`ntfy_topic`). The outlets and the push run
// on a thread of their own, so a slow bus or relay never holds up the tick.
class Notifier final : public AgentAlerts {
 public:
  // `relay` gives the ntfy server for pushes (read when an alert goes out).
  Notifier(Engine& engine, std::unique_ptr<AlertOutlets> outlets, std::function<std::string()> relay,
           std::function<void(const std::string&)> say);
  ~Notifier() override;

  void finished(const std::string& name, int minutes, bool processGone, const std::string& state) override;
  void needsYou(const std::string& name) override;

  // Sends one ntfy message; `done` gets whether the server took it (2xx).
  void push(const std::string& topic, const std::string& title, const std::string& body,
            std::function<void(bool)> done = nullptr);
  // What this machine lacks for alerts, one sentence each.
  std::vector<std::string> missing() { return outlets_ ? outlets_->missing() : std::vector<std::string>{}; }
  // Posts one desktop notification whatever `notify_done` says: the
  // engine's own alerts and announcements, and `island` requests.
  void note(const std::string& title, const std::string& body);
  // The last known reason notifications don't reach the desktop (learnt at
  // start and from each one sent), or nothing while they do.
  std::optional<std::string> notesUnavailable() const;
  // Waits until every alert queued so far went out (tests, quitting).
  void flush();

 private:
  void deliver(const std::string& title, const std::string& body);
  struct Worker;

  Engine& engine_;
  std::unique_ptr<AlertOutlets> outlets_;
  std::function<std::string()> relay_;
  std::function<void(const std::string&)> say_;
  std::unique_ptr<Worker> worker_;
  mutable std::mutex notesMutex_;
  std::optional<std::string> notesUnavailable_;
};

}  // namespace vigilo
