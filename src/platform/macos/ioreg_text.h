#pragma once

#include <optional>
#include <string_view>

#include "platform/registry.h"

// Pure readers of what /usr/sbin/ioreg prints. The battery controller comes
// as a property list (`ioreg -r -c AppleSmartBattery -a`) and is read with
// libplist; the root domain's lid flag is one line of ioreg's text form.
// Text that isn't ioreg's, or is cut short, gives nothing rather than a
// guess.

namespace vigilo {

// The battery controller's properties from `ioreg -r -c AppleSmartBattery
// -a`: an array holding one dictionary per battery service (the first is
// read), or that dictionary alone. Nothing for a Mac without a battery (an
// empty array), for text that isn't a property list, or when libplist can't
// be loaded.
//
// "CurrentCapacity" and "MaxCapacity" are percent on Apple Silicon and mAh on
// Intel; either way their ratio is the charge. Where a Mac leaves them out,
// the raw pair ("AppleRawCurrentCapacity", "AppleRawMaxCapacity") stands in,
// else the pair inside "BatteryData" ("RemainingCapacity",
// "FullChargeCapacity"); a pair is never mixed from two sources. Signed
// values come as large unsigned integers on some releases and are read back
// as signed; an "InstantAmperage" between 32768 and 65535 is a 16-bit
// negative reading (a known fault of some Intel controllers) and read so.
std::optional<BatteryProperties> parseSmartBattery(std::string_view plistXml);

// "AppleClamshellState" of `ioreg -r -k AppleClamshellState`: Yes while the
// lid is shut. Nothing when no line carries the key with a Yes or No value
// (a Mac without a lid lists no root domain with that key).
std::optional<bool> clamshellFromIoreg(std::string_view text);

// Whether the login session of user `uid` has its screen locked, from
// `ioreg -n Root -d1 -a`: the root's "IOConsoleUsers" lists one dictionary
// per session, with "kCGSSessionUserIDKey" and, only while locked,
// "CGSSessionScreenIsLocked" true. Nothing when the text isn't such a list or
// names no session of `uid`.
std::optional<bool> screenLockedFromIoreg(std::string_view plistXml, long uid);

// Whether libplist could be loaded, for `vigilo doctor`.
bool plistReaderAvailable();

}  // namespace vigilo
