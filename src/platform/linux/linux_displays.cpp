#include "platform/linux/linux_displays.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace vigilo {

Result LinuxDisplays::setBuiltInEnabled(bool) {
  return Result::fail("Switching the built-in screen off and on isn't available on Linux yet.");
}

std::optional<double> LinuxDisplays::brightness() {
  auto name = tree_.backlight();
  if (!name) return std::nullopt;
  auto now = tree_.read("/sys/class/backlight/" + *name + "/brightness");
  auto max = tree_.read("/sys/class/backlight/" + *name + "/max_brightness");
  if (!now || !max) return std::nullopt;
  const auto nowValue = sysfsInteger(*now);
  const auto maxValue = sysfsInteger(*max);
  if (!nowValue || !maxValue || *maxValue < 1 || *nowValue < 0) return std::nullopt;
  return std::clamp(static_cast<double>(*nowValue) / static_cast<double>(*maxValue), 0.0, 1.0);
}

std::optional<bool> LinuxDisplays::sessionLocked() {
  auto locked = logind_.sessionLocked();
  return locked.ok() ? locked.value : std::nullopt;
}

Result LinuxDisplays::lockScreen() {
  auto answer = logind_.lockSession();
  if (answer.ok()) return Result::ok();
  return Result::fail("logind didn't lock the session: " + answer.message);
}

Result LinuxDisplays::setBrightness(double level) {
  auto name = tree_.backlight();
  if (!name) {
    return Result::fail("No screen backlight found under /sys/class/backlight, so Vigilo can't set the brightness.");
  }
  auto max = tree_.read("/sys/class/backlight/" + *name + "/max_brightness");
  auto maxValue = max ? sysfsInteger(*max) : std::nullopt;
  if (!maxValue || *maxValue < 1 || *maxValue > UINT32_MAX) {
    return Result::fail("The backlight " + *name +
                        " doesn't say its maximum brightness, so Vigilo leaves it as it is.");
  }
  if (!std::isfinite(level)) return Result::fail("That brightness isn't a number.");
  const auto value =
      static_cast<std::uint32_t>(std::lround(std::clamp(level, 0.0, 1.0) * static_cast<double>(*maxValue)));
  auto answer = logind_.setBrightness("backlight", *name, value);
  if (answer.ok()) return Result::ok();
  return Result::fail("logind didn't set the brightness of " + *name + " (" + answer.message +
                      "); it does so only for the active local session.");
}

}  // namespace vigilo
