#include "remote/remote_control.h"

#include <algorithm>
#include <utility>

#include "commands/command_center.h"
#include "platform/text.h"

namespace vigilo {

nlohmann::json runPhoneRequest(CommandCenter& center, const std::string& cmd, const nlohmann::json& args) {
  // The same bound the request channel sets on names.
  constexpr std::size_t kMaxName = 1024;
  for (auto& [key, value] : args.items()) {
    if (key == "reason" || !value.is_string() || value.get_ref<const std::string&>().size() <= kMaxName) continue;
    return {{"ok", false}, {"error", cutUtf8(key, 64) + " is too long (at most 1024 characters)"}};
  }
  nlohmann::json reply = center.handle(cmd, args);
  if (cmd == "panel" && reply.value("ok", true) == false && reply.value("error", "").rfind("Unknown command", 0) == 0) {
    reply = center.handle("status", args);
  }
  return reply;
}

RemoteControl::RemoteControl(RunLoop& loop, const Clock& clock, const StateFiles& files, PhoneCommands::Runner runner,
                             Say say)
    : loop_(loop), clock_(clock), files_(files), say_(std::move(say)), commands_(&files, std::move(runner)) {}

RemoteControl::~RemoteControl() {
  if (watch_) loop_.unwatch(*watch_);
  // The relay's threads stop before the state they post to is gone; posts
  // already queued find `alive_` expired.
  relay_.reset();
}

void RemoteControl::start() {
  std::weak_ptr<bool> weak = alive_;
  watch_ = loop_.watchFile(files_.path(kRemoteFile), [this, weak] {
    if (!weak.expired()) reload();
  });
  reload();
}

void RemoteControl::reload() {
  settings_ = RemoteSettings::load(files_);
  std::vector<std::string> topics;
  if (settings_.enabled) {
    for (const UsablePhone& p : settings_.usable()) topics.push_back(p.commandTopic);
  }
  if (topics == listenedTopics_ && settings_.relay == listenedRelay_) return;
  relay_.reset();
  listenedTopics_ = topics;
  listenedRelay_ = settings_.relay;
  if (topics.empty()) {
    say_(!settings_.enabled         ? "phone control is off (vigilo pair --on turns it back on)"
         : settings_.phones.empty() ? "phone control is off (no phone paired)"
                                    : "phone control is off (no paired phone has a usable key)");
    return;
  }
  std::weak_ptr<bool> weak = alive_;
  RunLoop* loop = &loop_;
  Say say = say_;
  // Commands a phone sent while the app was stopped are still picked up, as
  // far back as a wake may wait.
  relay_ = std::make_unique<RelayClient>(
      settings_.relay, topics, settings_.resumePoint(clock_.now(), kWakeMaxAge),
      [this, weak, loop](RelayMessage m) {
        loop->post([this, weak, m = std::move(m)] {
          if (!weak.expired()) received(m);
        });
      },
      [weak, loop, say](std::string line) {
        loop->post([weak, say, line = std::move(line)] {
          if (!weak.expired()) say(line);
        });
      });
  say_("phone control listens for " + std::to_string(topics.size()) + (topics.size() == 1 ? " phone" : " phones") +
       " through " + settings_.relay);
}

void RemoteControl::received(const RelayMessage& m) {
  if (settings_.wasRead(m.time, m.id)) return;
  // Noted as read before it is handled, whatever becomes of it: a message
  // that can't be opened, read or run is not read again at the next launch.
  // Noted on the file as it is now, as `vigilo pair` may have changed it
  // since it was read; the topics stay as they are, so the reload this write
  // triggers keeps the listener running.
  auto noted = RemoteSettings::update(files_, [&](RemoteSettings& s) {
    const auto before = std::make_pair(s.readUntil, s.readIds);
    s.noteRead(m.time, m.id, clock_.now());
    return before != std::make_pair(s.readUntil, s.readIds);
  });
  if (noted) {
    settings_.readUntil = noted->readUntil;
    settings_.readIds = noted->readIds;
  }
  std::optional<PhoneOutcome> outcome;
  try {
    outcome = commands_.handle(settings_.usable(), m.topic, m.message, clock_.now());
  } catch (const std::exception& e) {
    say_(std::string("phone: a message couldn't be handled (") + e.what() + ")");
    return;
  }
  if (!outcome) return;
  const Time now = clock_.now();
  auto saved = RemoteSettings::update(files_, [&](RemoteSettings& s) {
    for (PairedPhone& p : s.phones) {
      if (p.id != outcome->phoneId) continue;
      p.lastSeen = now;
      if (outcome->deviceName) p.name = *outcome->deviceName;
    }
    return true;
  });
  if (!noted || !saved) say_("warning: Couldn't save the phone settings");
  const std::string cmd = outcome->cmd.empty() ? "(no command)" : terminalSafe(cutUtf8(outcome->cmd, 64));
  say_("phone: " + cmd +
       (outcome->reply.value("ok", false) ? " done" : " refused: " + terminalSafe(outcome->reply.value("error", ""))));
  if (relay_ && !outcome->sealedReply.empty()) relay_->publish(outcome->replyTopic, outcome->sealedReply);
}

}  // namespace vigilo
