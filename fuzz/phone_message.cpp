// A message on a paired phone's command topic. The input is the command's
// plaintext JSON, sealed with the phone's key so that it opens and reaches
// the checks, the command center's stand-in and the phone settings, as the
// app handles it; the same bytes are also opened as a sealed message as
// they stand, which must fail cleanly.
#include <nlohmann/json.hpp>

#include "engine/state_files.h"
#include "fuzz_target.h"
#include "remote/crypto.h"
#include "remote/pairing.h"
#include "remote/phone_commands.h"

VIGILO_FUZZ_TARGET(phone_message) {
  using namespace vigilo;
  using json = nlohmann::json;
  const std::string& folder = vigilo::fuzz::scratchFolder("phone_message");
  const StateFiles files(folder);
  PhoneKey key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i * 7 + 1);
  RemoteSettings settings;
  settings.phones.push_back(PairedPhone{"phone-1", "New phone", encodeKey(key), 1'799'990'000, std::nullopt});
  if (!settings.save(files)) return;
  const std::vector<UsablePhone> phones = settings.usable();
  if (phones.empty()) return;
  const std::string& topic = phones.front().commandTopic;
  const Time now = 1'800'000'000;

  (void)open(input, topic, key);

  // The command center's stand-in answers with the arguments it was given,
  // so the reply trimmed for the phone is as odd as the command.
  PhoneCommands commands(&files, [](const std::string&, const json& args) {
    json reply = args;
    reply["ok"] = true;
    return reply;
  });
  const auto sealed = sealWithNonce(input, topic, key, std::string(12, '\x01'));
  if (!sealed) return;
  auto outcome = commands.handle(phones, topic, *sealed, now);
  if (!outcome) return;
  (void)open(outcome->sealedReply, phones.front().replyTopic, key);
  // What the app notes of the phone afterwards.
  (void)RemoteSettings::update(files, [&](RemoteSettings& s) {
    s.readUntil = now;
    for (PairedPhone& p : s.phones) {
      if (p.id != outcome->phoneId) continue;
      p.lastSeen = now;
      if (outcome->deviceName) p.name = *outcome->deviceName;
    }
    return true;
  });
  (void)RemoteSettings::load(files);
}
