#pragma once

#include <memory>
#include <string>

#include "platform/wake_alarm.h"

namespace vigilo {

// The RTC wake alarm under sysfs ("/sys/class/rtc/rtc0/wakealarm"), which
// takes "+N" for N seconds from now and "0" to clear.
std::unique_ptr<WakeScheduler> makeRtcWakeScheduler(std::string wakealarmPath = "/sys/class/rtc/rtc0/wakealarm");

}  // namespace vigilo
