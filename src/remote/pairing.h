#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/state_files.h"
#include "platform/clock.h"
#include "remote/crypto.h"

namespace vigilo {

// "remote.json": the paired phones, whether phone control is on, and the
// addresses of the relay and the pairing page.
inline constexpr std::string_view kRemoteFile = "remote.json";
inline constexpr std::string_view kDefaultRelay = "https://ntfy.sh";
inline constexpr std::string_view kDefaultPageBase = "https://tarnwell.github.io/vigilo/phone/";
inline constexpr std::size_t kMaxPhones = 5;

struct PairedPhone {
  std::string id;
  std::string name = "New phone";
  std::string key;  // base64url of 32 bytes
  Time added = 0;
  std::optional<Time> lastSeen;
};

// One phone whose key decodes, with its two topics.
struct UsablePhone {
  std::string id;
  PhoneKey key{};
  std::string commandTopic;
  std::string replyTopic;
};

struct RemoteSettings {
  std::vector<PairedPhone> phones;
  bool enabled = true;
  std::string relay = std::string(kDefaultRelay);
  std::string pageBase = std::string(kDefaultPageBase);
  // The relay time of the last command read, so a restarted app reads on
  // from there instead of answering again what it already answered.
  std::optional<double> readUntil;
  // The relay ids of the messages read at `readUntil` itself: the relay
  // gives that second again, and what was read in it is not read twice.
  std::vector<std::string> readIds;

  // Notes one message from the relay as read (whether it could be handled
  // or not), so a later launch does not read it again. `time` is a relay
  // time already made sane; a stored point that isn't (a far-future one
  // from an older, trusting version) gives way to it.
  void noteRead(double time, const std::string& id, Time now);
  // Whether that message was read before.
  bool wasRead(double time, const std::string& id) const;
  // Where a launch at `now` starts reading: where it left off, but at most
  // `reach` seconds back, and never from a time that can't be.
  double resumePoint(Time now, double reach) const;

  // Reads "remote.json" leniently: a missing or damaged file gives no
  // phones, wrong-typed keys their defaults, phones without an id are left
  // out.
  static RemoteSettings load(const StateFiles& files);
  // Writes it durably (0600: it holds the keys). False when it cannot.
  bool save(const StateFiles& files) const;

  // Loads, changes with `edit` and saves under an advisory lock on
  // "remote.lock", so the app noting a phone's name and `vigilo pair` never
  // undo each other's change. `edit` returns false to save nothing. Gives
  // the settings as saved, or nothing when they couldn't be saved.
  static std::optional<RemoteSettings> update(const StateFiles& files,
                                              const std::function<bool(RemoteSettings&)>& edit);

  std::vector<UsablePhone> usable() const;
  // Whether phone control runs: on, with at least one usable phone.
  bool active() const { return enabled && !usable().empty(); }

  // Adds a phone with a fresh key and saves. The error is a sentence for the
  // person when the limit is reached or the key can't be made or saved.
  struct Added {
    std::optional<PairedPhone> phone;
    std::string error;
  };
  Added pairNewPhone(const StateFiles& files, Time now);
  // The page address, "#k=" and the key, and "&r=" with the relay when it is
  // not the default one.
  std::string pairingLink(const PairedPhone& phone) const;
  // Removes one phone (false when there is none with that id), or all.
  bool revoke(const std::string& id);
  void revokeAll();
};

// Relay and page addresses must be plain http(s) addresses without blanks
// or a fragment; this gives the address without a trailing "/" for the
// relay, or an error sentence.
std::optional<std::string> relayAddressProblem(const std::string& address);

}  // namespace vigilo
