#include "remote/pairing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <nlohmann/json.hpp>

#include "platform/text.h"
#include "remote/relay_client.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// More messages in one second than the relay's rate limit lets through.
constexpr std::size_t kMaxReadIds = 64;

std::string percentEncode(const std::string& s) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xf]);
    }
  }
  return out;
}

std::string hexId(const std::string& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char b : bytes) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 0xf]);
  }
  return out;
}

}  // namespace

RemoteSettings RemoteSettings::load(const StateFiles& files) {
  RemoteSettings s;
  auto bytes = files.read(kRemoteFile, 1024 * 1024);
  if (!bytes) return s;
  json j = json::parse(*bytes, nullptr, false);
  if (!j.is_object()) return s;
  if (auto it = j.find("enabled"); it != j.end() && it->is_boolean()) s.enabled = it->get<bool>();
  if (auto it = j.find("relay"); it != j.end() && it->is_string() && !relayAddressProblem(it->get<std::string>())) {
    s.relay = it->get<std::string>();
  }
  if (auto it = j.find("pageBase"); it != j.end() && it->is_string() && !relayAddressProblem(it->get<std::string>())) {
    s.pageBase = it->get<std::string>();
  }
  if (auto it = j.find("readUntil"); it != j.end() && it->is_number() && std::isfinite(it->get<double>())) {
    s.readUntil = it->get<double>();
  }
  if (auto it = j.find("readIds"); it != j.end() && it->is_array()) {
    for (const json& id : *it) {
      if (id.is_string() && s.readIds.size() < kMaxReadIds) s.readIds.push_back(id.get<std::string>());
    }
  }
  if (auto it = j.find("phones"); it != j.end() && it->is_array()) {
    for (const json& p : *it) {
      if (!p.is_object() || !p.contains("id") || !p["id"].is_string() || !p.contains("key") || !p["key"].is_string())
        continue;
      PairedPhone phone;
      phone.id = p["id"].get<std::string>();
      phone.key = p["key"].get<std::string>();
      if (p.contains("name") && p["name"].is_string()) phone.name = p["name"].get<std::string>();
      if (p.contains("added") && p["added"].is_number()) phone.added = p["added"].get<double>();
      if (p.contains("lastSeen") && p["lastSeen"].is_number()) phone.lastSeen = p["lastSeen"].get<double>();
      s.phones.push_back(std::move(phone));
    }
  }
  return s;
}

bool RemoteSettings::save(const StateFiles& files) const {
  json phonesJson = json::array();
  for (const PairedPhone& p : phones) {
    json e = {{"id", p.id}, {"name", p.name}, {"key", p.key}, {"added", p.added}};
    if (p.lastSeen) e["lastSeen"] = *p.lastSeen;
    phonesJson.push_back(std::move(e));
  }
  json j = {{"enabled", enabled}, {"relay", relay}, {"pageBase", pageBase}, {"phones", std::move(phonesJson)}};
  if (readUntil) j["readUntil"] = *readUntil;
  if (!readIds.empty()) j["readIds"] = readIds;
  return files.ensureDir() && files.writeDurably(kRemoteFile, dumpJson(j, 2) + "\n", 0600);
}

std::optional<RemoteSettings> RemoteSettings::update(const StateFiles& files,
                                                     const std::function<bool(RemoteSettings&)>& edit) {
  if (!files.ensureDir()) return std::nullopt;
  const int fd = ::open(files.path("remote.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) {
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  RemoteSettings s = load(files);
  std::optional<RemoteSettings> out;
  if (!edit(s)) {
    out = s;
  } else if (s.save(files)) {
    out = s;
  }
  if (fd >= 0) ::close(fd);
  return out;
}

void RemoteSettings::noteRead(double time, const std::string& id, Time now) {
  if (time <= 0) return;
  const double last = saneRelayTime(readUntil.value_or(0), now);
  if (time > last) {
    readUntil = time;
    readIds.clear();
  } else if (time < last) {
    return;
  }
  if (!id.empty() && readIds.size() < kMaxReadIds && !wasRead(time, id)) readIds.push_back(id);
}

bool RemoteSettings::wasRead(double time, const std::string& id) const {
  return !id.empty() && readUntil && time == *readUntil &&
         std::find(readIds.begin(), readIds.end(), id) != readIds.end();
}

double RemoteSettings::resumePoint(Time now, double reach) const {
  return std::max(now - reach, saneRelayTime(readUntil.value_or(0), now));
}

std::vector<UsablePhone> RemoteSettings::usable() const {
  std::vector<UsablePhone> out;
  for (const PairedPhone& p : phones) {
    auto key = decodeKey(p.key);
    if (!key) continue;
    out.push_back({p.id, *key, topicFor(*key, kCommandLabel), topicFor(*key, kReplyLabel)});
  }
  return out;
}

RemoteSettings::Added RemoteSettings::pairNewPhone(const StateFiles& files, Time now) {
  Added result;
  if (phones.size() >= kMaxPhones) {
    result.error = std::to_string(phones.size()) + " phones are paired; revoke one first";
    return result;
  }
  auto key = newPhoneKey();
  auto id = secureRandom(4);
  if (!key || !id) {
    result.error = "Couldn't save the pairing key";
    return result;
  }
  PairedPhone phone;
  phone.id = hexId(*id);
  phone.key = encodeKey(*key);
  phone.added = now;
  phones.push_back(phone);
  enabled = true;
  if (!save(files)) {
    phones.pop_back();
    result.error = "Couldn't save the pairing key";
    return result;
  }
  result.phone = phone;
  return result;
}

std::string RemoteSettings::pairingLink(const PairedPhone& phone) const {
  std::string link = pageBase + "#k=" + phone.key;
  if (relay != kDefaultRelay) link += "&r=" + percentEncode(relay);
  return link;
}

bool RemoteSettings::revoke(const std::string& id) {
  const auto before = phones.size();
  std::erase_if(phones, [&](const PairedPhone& p) { return p.id == id; });
  return phones.size() != before;
}

void RemoteSettings::revokeAll() { phones.clear(); }

std::optional<std::string> relayAddressProblem(const std::string& address) {
  const bool schemeOk = address.rfind("http://", 0) == 0 || address.rfind("https://", 0) == 0;
  const std::size_t schemeEnd = address.find("://");
  if (!schemeOk || address.size() <= schemeEnd + 3) {
    return "\"" + address + "\" isn't an http:// or https:// address";
  }
  for (unsigned char c : address) {
    if (c <= ' ' || c == '#' || c == '"' || c >= 0x7f) {
      return "\"" + address + "\" can't hold blanks, quotes or \"#\"";
    }
  }
  return std::nullopt;
}

}  // namespace vigilo
