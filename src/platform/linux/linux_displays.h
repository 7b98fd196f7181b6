#pragma once

#include <optional>

#include "platform/linux/logind.h"
#include "platform/linux/sys_tree.h"
#include "platform/power_control.h"

namespace vigilo {

// The built-in screen: its backlight read from /sys/class/backlight and set
// through logind, the session's lock through logind. Switching the screen
// off is not offered. Its references must outlive it.
class LinuxDisplays final : public Displays {
 public:
  LinuxDisplays(const SysTree& tree, Logind& logind) : tree_(tree), logind_(logind) {}

  Result setBuiltInEnabled(bool enabled) override;
  bool hasBuiltIn() override { return tree_.backlight().has_value(); }
  std::optional<double> brightness() override;
  std::optional<bool> sessionLocked() override;
  Result lockScreen() override;
  // The sleep switch's logind lock already blocks "idle" for as long as the
  // machine is held, and a closed-lid session only runs while it is held.
  Result holdDisplayAwake(bool) override { return Result::ok(); }
  Result setBrightness(double level) override;

 private:
  const SysTree& tree_;
  Logind& logind_;
};

}  // namespace vigilo
