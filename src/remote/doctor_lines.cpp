#include "remote/doctor_lines.h"

#include "remote/pairing.h"
#include "remote/wake.h"

namespace vigilo {
namespace {

void alerts(const std::vector<std::string>& missing, std::vector<std::string>& out) {
  if (missing.empty() || missing.front().rfind("The chime", 0) == 0) {
    out.push_back("Notifications: shown on the desktop (alerts, and announcements with notch_island on)");
  }
  for (const std::string& m : missing) out.push_back("Not available: " + m);
}

}  // namespace

std::vector<std::string> phoneDoctorLines(const std::string& appFolder, AlertOutlets& outlets, WakeScheduler& wakes) {
  std::vector<std::string> out;
  const StateFiles files(appFolder);
  const RemoteSettings remote = RemoteSettings::load(files);
  const std::size_t usable = remote.usable().size();
  if (remote.phones.empty()) {
    out.push_back("Phones: none paired (vigilo pair pairs one)");
  } else {
    out.push_back("Phones: " + std::to_string(remote.phones.size()) + " paired" +
                  (usable != remote.phones.size()
                       ? " (" + std::to_string(remote.phones.size() - usable) + " with a damaged key)"
                       : "") +
                  ", phone control " + (remote.enabled ? "on" : "off") + ", relay " + remote.relay);
  }
  // The simulated laptop shows its alerts on this desktop too.
  alerts(outlets.missing(), out);
  if (auto problem = wakes.unavailable()) {
    out.push_back("Not available: " + *problem);
  } else {
    out.push_back("Scheduled wakes: " + wakes.how());
  }
  return out;
}

}  // namespace vigilo
