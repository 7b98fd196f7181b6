#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/state_files.h"
#include "platform/run_loop.h"
#include "remote/pairing.h"
#include "remote/phone_commands.h"
#include "remote/relay_client.h"

namespace vigilo {

class CommandCenter;

// Runs a phone's request through the command center; `panel` falls back
// to the status dictionary where the center has no panel of its own.
nlohmann::json runPhoneRequest(CommandCenter& center, const std::string& cmd, const nlohmann::json& args);

// Phone control in the running app: listens on every usable phone's command
// topic while phone control is on, runs what the guard lets through and
// publishes the sealed replies. Follows "remote.json" as `vigilo pair`
// changes it. Lives on the main thread; the network work runs on the relay
// client's threads and comes back through the loop.
class RemoteControl {
 public:
  using Say = std::function<void(const std::string&)>;
  RemoteControl(RunLoop& loop, const Clock& clock, const StateFiles& files, PhoneCommands::Runner runner, Say say);
  ~RemoteControl();
  RemoteControl(const RemoteControl&) = delete;
  RemoteControl& operator=(const RemoteControl&) = delete;

  // Reads the settings, starts listening and watches the settings file.
  void start();
  // Whether it listens now, and to how many phones.
  bool listening() const { return relay_ != nullptr; }
  std::size_t phoneCount() const { return listenedTopics_.size(); }

 private:
  void reload();
  void received(const RelayMessage& m);

  RunLoop& loop_;
  const Clock& clock_;
  const StateFiles& files_;
  Say say_;
  PhoneCommands commands_;
  RemoteSettings settings_;
  std::string listenedRelay_;
  std::vector<std::string> listenedTopics_;
  std::unique_ptr<RelayClient> relay_;
  std::optional<WatchId> watch_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vigilo
