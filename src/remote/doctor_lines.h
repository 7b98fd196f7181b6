#pragma once

#include <string>
#include <vector>

#include "platform/desktop.h"
#include "platform/wake_alarm.h"

namespace vigilo {

// What `vigilo doctor` says about phones, scheduled wakes and alerts, one
// line each: what is paired, and what this machine can't do.
std::vector<std::string> phoneDoctorLines(const std::string& appFolder, AlertOutlets& alerts, WakeScheduler& wakes);

}  // namespace vigilo
