// The Mac's native pieces, each small and each with a command-line fallback
// in mac_platform.cpp for when it is missing. None of this has run in this
// project's tests until the macOS workflow (.github/workflows/macos.yml)
// passes on a Mac.

#include "platform/macos/native/mac_native.h"

#include <IOKit/IOMessage.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <dispatch/dispatch.h>
#include <dlfcn.h>
#include <libproc.h>
#include <sys/resource.h>

#include <CoreGraphics/CoreGraphics.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

namespace vigilo {
namespace {

// Energy per process: proc_pid_rusage(2) with RUSAGE_INFO_V6, whose
// ri_energy_nj counts the nanojoules the process has used (libproc.h and
// sys/resource.h of the macOS SDK; Apple documents proc_pid_rusage in
// "libproc" of the Kernel framework reference).
std::optional<std::uint64_t> energyOf(std::int32_t pid) {
  rusage_info_v6 info{};
  if (proc_pid_rusage(pid, RUSAGE_INFO_V6, reinterpret_cast<rusage_info_t*>(&info)) != 0) return std::nullopt;
  return info.ri_energy_nj;
}

// Darwin background priority: setpriority(2) with PRIO_DARWIN_PROCESS and
// PRIO_DARWIN_BG (Apple's setpriority man page), undone with 0.
Result setBackground(std::int32_t pid, bool on) {
  if (::setpriority(PRIO_DARWIN_PROCESS, pid, on ? PRIO_DARWIN_BG : 0) == 0) return Result::ok();
  const int err = errno;
  return Result::fail("Couldn't " + std::string(on ? "slow" : "put back") + " process " + std::to_string(pid) +
                      ": " + std::strerror(err) + ".");
}

// The built-in display: CGGetOnlineDisplayList and CGDisplayIsBuiltin
// (Quartz Display Services), its brightness through DisplayServices, a
// private framework without headers, opened by name; without it there is
// no brightness.
using GetBrightness = int (*)(CGDirectDisplayID, float*);
using SetBrightness = int (*)(CGDirectDisplayID, float);

void* displayServices() {
  static void* handle =
      ::dlopen("/System/Library/PrivateFrameworks/DisplayServices.framework/DisplayServices", RTLD_LAZY);
  return handle;
}

std::optional<CGDirectDisplayID> builtInDisplay() {
  CGDirectDisplayID ids[16];
  uint32_t count = 0;
  if (CGGetOnlineDisplayList(16, ids, &count) != kCGErrorSuccess) return std::nullopt;
  for (uint32_t i = 0; i < count; ++i) {
    if (CGDisplayIsBuiltin(ids[i])) return ids[i];
  }
  return std::nullopt;
}

std::optional<double> brightness() {
  void* lib = displayServices();
  auto get = reinterpret_cast<GetBrightness>(lib != nullptr ? ::dlsym(lib, "DisplayServicesGetBrightness") : nullptr);
  auto id = builtInDisplay();
  float level = 0;
  if (get == nullptr || !id || get(*id, &level) != 0) return std::nullopt;
  return level;
}

Result setBrightness(double level) {
  void* lib = displayServices();
  auto set = reinterpret_cast<SetBrightness>(lib != nullptr ? ::dlsym(lib, "DisplayServicesSetBrightness") : nullptr);
  auto id = builtInDisplay();
  if (set == nullptr || !id) return Result::fail("This Mac's built-in screen brightness can't be set.");
  if (set(*id, static_cast<float>(level < 0 ? 0 : level > 1 ? 1 : level)) != 0) {
    return Result::fail("macOS refused to set the screen's brightness.");
  }
  return Result::ok();
}

// "PreventUserIdleDisplaySleep": IOPMAssertionCreateWithName and
// IOPMAssertionRelease (IOKit's IOPMLib, "Power Management" in Apple's
// IOKit documentation).
Result holdDisplayAwake(bool on) {
  static IOPMAssertionID held = kIOPMNullAssertionID;
  if (!on) {
    if (held != kIOPMNullAssertionID) IOPMAssertionRelease(held);
    held = kIOPMNullAssertionID;
    return Result::ok();
  }
  if (held != kIOPMNullAssertionID) return Result::ok();
  if (IOPMAssertionCreateWithName(kIOPMAssertionTypePreventUserIdleDisplaySleep, kIOPMAssertionLevelOn,
                                  CFSTR("Vigilo keeps the screen from locking while the lid is shut"),
                                  &held) != kIOReturnSuccess) {
    held = kIOPMNullAssertionID;
    return Result::fail("macOS refused Vigilo's display assertion.");
  }
  return Result::ok();
}

// Will-sleep and has-powered-on: IORegisterForSystemPower, whose callback
// must answer kIOMessageSystemWillSleep with IOAllowPowerChange (Apple's
// Technical Q&A QA1340, "Registering and unregistering for sleep and wake
// notifications"). The port delivers on a serial queue; `post` hands each
// event to the main loop.
struct SleepWatch {
  io_connect_t root = 0;
  IONotificationPortRef port = nullptr;
  io_object_t notifier = 0;
  std::function<void(bool)> post;
};

void powerCallback(void* refcon, io_service_t, natural_t type, void* argument) {
  auto* w = static_cast<SleepWatch*>(refcon);
  switch (type) {
    case kIOMessageCanSystemSleep:
      IOAllowPowerChange(w->root, reinterpret_cast<long>(argument));
      break;
    case kIOMessageSystemWillSleep:
      w->post(true);
      IOAllowPowerChange(w->root, reinterpret_cast<long>(argument));
      break;
    case kIOMessageSystemHasPoweredOn:
      w->post(false);
      break;
    default:
      break;
  }
}

bool watchSleepWake(std::function<void(bool willSleep)> post) {
  static SleepWatch watch;  // lives as long as the app
  if (watch.root != 0) return true;
  watch.post = std::move(post);
  watch.root = IORegisterForSystemPower(&watch, &watch.port, powerCallback, &watch.notifier);
  if (watch.root == 0) return false;
  IONotificationPortSetDispatchQueue(watch.port, dispatch_queue_create("com.tarnwell.vigilo.power", nullptr));
  return true;
}

}  // namespace

MacNative makeMacNative() {
  MacNative n;
  n.energyNanojoules = energyOf;
  n.setBackground = setBackground;
  n.brightness = brightness;
  n.setBrightness = setBrightness;
  n.holdDisplayAwake = holdDisplayAwake;
  n.watchSleepWake = watchSleepWake;
  n.pieces = {"energy per app (proc_pid_rusage)", "background priority (PRIO_DARWIN_BG)",
              "brightness (DisplayServices)", "display assertion (IOPMAssertion)",
              "sleep and wake notifications (IORegisterForSystemPower)"};
  return n;
}

}  // namespace vigilo
