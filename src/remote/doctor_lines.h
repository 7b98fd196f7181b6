#pragma once

#include <string>
#include <vector>

namespace vigilo {

// What `vigilo doctor` says about phones, scheduled wakes and alerts, one
// line each: what is paired, and what this machine can't do.
std::vector<std::string> phoneDoctorLines(const std::string& appFolder, bool simulated);

}  // namespace vigilo
