#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vigilo {

// Where programs live on the machine: the app bundles they belong to, what
// a bundle says about itself, and the operating system's own folders. Pure
// functions of a path, but for readBundleMeta, which reads one file.

// What an app bundle says about itself.
struct BundleMeta {
  std::optional<std::string> displayName;  // "CFBundleDisplayName", else "CFBundleName"
  std::optional<std::string> bundleID;     // "CFBundleIdentifier"
};

// Reads a bundle's facts from its folder ("/Applications/Foo.app"); nothing
// when it has none to give.
using BundleLookup = std::function<BundleMeta(const std::string& bundlePath)>;

// The outermost app bundle of an executable path, up to and including its
// first ".app" followed by "/" ("/Applications/Foo.app"); nothing when the
// path lies in no bundle.
std::optional<std::string_view> outermostBundle(std::string_view path);

// The facts of an XML property list (a bundle's Contents/Info.plist). A
// binary or damaged list gives nothing.
BundleMeta bundleMetaFromInfoPlist(std::string_view xml);
// Reads "<bundle>/Contents/Info.plist" (at most 1 MB) from disk.
BundleMeta readBundleMeta(const std::string& bundlePath);

// Whether an executable lives where the operating system keeps its own
// programs: "/System/" and "/Library/Apple/" (but not the apps that come with
// the system under "/System/Applications/" or a cryptex's
// "/Cryptexes/App/System/Applications/"), "/usr/libexec/", "/usr/sbin/",
// "/sbin/", and on Linux "/usr/lib/" and "/lib/" (systemd and its helpers).
// A process with no readable path is the system's too (the kernel hides
// other users' processes and kernel threads have none).
bool isSystemLocation(std::string_view path);

}  // namespace vigilo
