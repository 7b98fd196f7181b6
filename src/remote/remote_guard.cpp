#include "remote/remote_guard.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace vigilo {
namespace {
// Ids are kept as long as any command could still be inside its age window.
constexpr double kSeenKeep = kWakeMaxAge + kMaxAhead;
constexpr double kRateWindow = 60;
}  // namespace

RemoteGuard::RemoteGuard(const StateFiles* files) : files_(files) {
  if (!files_) return;
  auto bytes = files_->read(kRemoteSeenFile, 4 * 1024 * 1024);
  if (!bytes) return;
  auto j = nlohmann::json::parse(*bytes, nullptr, false);
  if (!j.is_object()) return;
  for (auto& [id, at] : j.items()) {
    if (at.is_number() && std::isfinite(at.get<double>())) seen_[id] = at.get<double>();
  }
}

std::optional<std::string> RemoteGuard::check(double t, const std::string& id, double maxAge, Time now) {
  if (id.empty() || id.size() > 64) return "bad id";
  if (!std::isfinite(t) || t < now - maxAge || t > now + kMaxAhead) {
    return "too old or from the future (check the phone's clock)";
  }
  bool dropped = false;
  for (auto it = seen_.begin(); it != seen_.end();) {
    if (it->second < now - kSeenKeep) {
      it = seen_.erase(it);
      dropped = true;
    } else {
      ++it;
    }
  }
  if (seen_.count(id) != 0) {
    if (dropped) save();
    return "already handled";
  }
  while (!recent_.empty() && recent_.front() <= now - kRateWindow) recent_.pop_front();
  // This command would be the 30th within the minute.
  if (recent_.size() + 1 >= kRateLimit) {
    if (dropped) save();
    return "too many commands, wait a minute";
  }
  recent_.push_back(now);
  seen_[id] = now;
  save();
  return std::nullopt;
}

void RemoteGuard::save() const {
  if (!files_) return;
  nlohmann::json j = nlohmann::json::object();
  for (const auto& [id, at] : seen_) j[id] = at;
  // A lost write only weakens replay protection until the next save; the
  // command itself still runs.
  files_->writeDurably(kRemoteSeenFile, dumpJson(j) + "\n");
}

}  // namespace vigilo
