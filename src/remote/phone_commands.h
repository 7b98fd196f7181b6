#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "remote/pairing.h"
#include "remote/remote_guard.h"

namespace vigilo {

// The longest message body ntfy keeps as a message.
inline constexpr std::size_t kMaxRelayBody = 4096;
// The longest phone name kept, in bytes.
inline constexpr std::size_t kMaxDeviceName = 64;
// How deeply a command may nest: the command object, its `args` and a few
// levels inside (a setting's list value) are plenty.
inline constexpr int kMaxArgsDepth = 8;

// Whether a phone may send `cmd`.
bool allowedFromPhone(const std::string& cmd);

// The reply trimmed to what the phone shows: the panel figures, and for
// `schema` only key, type, allowed and value of each setting.
nlohmann::json phoneReply(const nlohmann::json& reply, const std::string& cmd);

// What became of one message on a command topic.
struct PhoneOutcome {
  std::string phoneId;
  std::string replyTopic;
  std::string sealedReply;  // empty when sealing failed
  nlohmann::json reply;     // the plaintext reply, for the log
  std::optional<std::string> deviceName;
  std::string cmd;
  bool ran = false;
};

// Opens, checks and runs phone commands. Lives on the main thread.
class PhoneCommands {
 public:
  // Runs one request through the command center and gives its reply.
  using Runner = std::function<nlohmann::json(const std::string& cmd, const nlohmann::json& args)>;

  PhoneCommands(const StateFiles* files, Runner runner) : guard_(files), runner_(std::move(runner)) {}

  // Nothing when the message opens with none of the phones' keys on their
  // command topics (it is not ours); otherwise the sealed reply to publish,
  // a refusal or the trimmed answer.
  std::optional<PhoneOutcome> handle(const std::vector<UsablePhone>& phones, const std::string& topic,
                                     const std::string& message, Time now);

 private:
  RemoteGuard guard_;
  Runner runner_;
};

}  // namespace vigilo
