#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/power_control.h"
#include "platform/registry.h"

// Pure readers of what /usr/bin/pmset prints. The macOS backend runs the
// command through a CommandRunner; these functions only interpret its text,
// so each is tested on Linux with output captured on real Macs. Text that is
// not what pmset prints, or is cut short, gives nothing rather than a guess.

namespace vigilo {

// ---------------------------------------------------------------- pmset -g batt

// The internal battery's line of `pmset -g batt` (the same text as
// `pmset -g ps`): " -InternalBattery-0 (id=4391011)\t100%; charged; 0:00
// remaining present: true".
struct PmsetBattery {
  int percent = 0;
  // "discharging", "charging", "charged", "AC attached", "finishing charge".
  std::string state;
  // The estimate in minutes; nothing for "(no estimate)" or none given.
  std::optional<int> minutesLeft;
};

struct PmsetPowerSource {
  // From "Now drawing from 'AC Power'": "AC Power", "Battery Power" or
  // "UPS Power".
  std::string drawingFrom;
  // Nothing on a Mac without a battery (a desktop prints only the first line).
  std::optional<PmsetBattery> internalBattery;
};

// Nothing unless the text begins with pmset's "Now drawing from '...'" line.
// A battery line that is cut short or out of range leaves the battery out.
std::optional<PmsetPowerSource> parsePmsetBatt(std::string_view text);

// The battery in the registry's terms, for a Mac whose registry can't be
// read: capacities as percent of 100, the adapter from the source drawn from,
// the time left in minutes (65535 when unknown). Nothing without a battery.
std::optional<BatteryProperties> batteryFromPmset(const PmsetPowerSource& source);

// ---------------------------------------------------------------- pmset -g therm

// What `pmset -g therm` recorded. Apple Silicon Macs record nothing here
// ("Note: No thermal warning level has been recorded" and the like); Intel
// Macs add a "CPU Power notify" block with CPU_Speed_Limit.
struct PmsetThermal {
  std::optional<int> cpuSpeedLimit;        // percent of full speed, 1...100
  std::optional<int> thermalWarningLevel;  // IOPMLib's levels: 0 normal, 5 danger, 10 crisis
};

// Nothing for text that holds neither pmset's notes nor a speed limit.
std::optional<PmsetThermal> parsePmsetTherm(std::string_view text);

// The 0-3 thermal state of `Registry::thermalState`. A crisis warning level
// is critical, a danger level serious. A speed limit alone never makes the
// state critical: firmware also caps the speed for reasons other than heat
// (a missing battery, a weak adapter), and critical puts the Mac to sleep;
// at or below half speed it is serious, below full speed fair.
int thermalStateFromPmset(const PmsetThermal& thermal);

// ---------------------------------------------------------------- pmset -g assertions

// The assertions of "Listed by owning process:", in order:
//   pid 98217(caffeinate): [0x00045477000194b3] 00:00:03 PreventUserIdleSystemSleep named: "caffeinate command-line tool"
//       Created for PID: 64578.
//       Resources: audio-out built-in-speaker
// `since` is the report's own time stamp (its first line, "2025-11-02
// 13:20:57 -0600") less the assertion's age; nothing when either is missing.
// A line cut short before its name is left out; kernel assertions are not
// per process and are not listed.
std::vector<PowerAssertion> parsePmsetAssertions(std::string_view text);

// ---------------------------------------------------------------- pmset -g, pmset -g custom

// "SleepDisabled" of `pmset -g`'s "System-wide power settings:" section:
// pmset lists it only while set, so a section without it means false.
// Nothing when the text has no such section.
std::optional<bool> sleepDisabledFromPmset(std::string_view text);

// The battery power mode of `pmset -g custom`: in the section whose heading
// begins with "Battery" and ends with "Power:", the first line whose key is
// "lowpowermode" or "powermode" and whose value is an integer.
std::optional<PowerModeSetting> batteryPowerModeFromCustom(std::string_view text);

// The same key in `pmset -g`'s "Currently in use:" section: the mode in force
// for the power source the Mac draws from now.
std::optional<PowerModeSetting> powerModeInUse(std::string_view text);

}  // namespace vigilo
