#include "platform/bundles.h"

#include <utility>

#include "platform/files.h"

namespace vigilo {
namespace {

constexpr std::size_t kInfoPlistLimit = 1024 * 1024;

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

// The text of the <string> element that follows <key>name</key>, with the
// five XML entities decoded.
std::optional<std::string> plistString(std::string_view xml, std::string_view key) {
  const std::string tag = "<key>" + std::string(key) + "</key>";
  const auto at = xml.find(tag);
  if (at == std::string_view::npos) return std::nullopt;
  std::size_t i = at + tag.size();
  while (i < xml.size() && (xml[i] == ' ' || xml[i] == '\t' || xml[i] == '\r' || xml[i] == '\n')) ++i;
  constexpr std::string_view kOpen = "<string>";
  constexpr std::string_view kClose = "</string>";
  if (xml.substr(i, kOpen.size()) != kOpen) return std::nullopt;
  i += kOpen.size();
  const auto end = xml.find(kClose, i);
  if (end == std::string_view::npos) return std::nullopt;
  std::string raw(xml.substr(i, end - i));
  std::string out;
  out.reserve(raw.size());
  static const std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  for (std::size_t k = 0; k < raw.size();) {
    bool decoded = false;
    if (raw[k] == '&') {
      for (const auto& [entity, c] : kEntities) {
        if (std::string_view(raw).substr(k, entity.size()) == entity) {
          out += c;
          k += entity.size();
          decoded = true;
          break;
        }
      }
    }
    if (!decoded) out += raw[k++];
  }
  if (out.empty()) return std::nullopt;
  return out;
}

}  // namespace

std::optional<std::string_view> outermostBundle(std::string_view path) {
  const auto at = path.find(".app/");
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view bundle = path.substr(0, at + 4);
  // ".app/" at the very start, or right after a slash, names no bundle.
  if (lastComponent(bundle) == ".app") return std::nullopt;
  return bundle;
}

BundleMeta bundleMetaFromInfoPlist(std::string_view xml) {
  BundleMeta m;
  if (xml.find("<plist") == std::string_view::npos) return m;  // binary plists start "bplist00"
  m.displayName = plistString(xml, "CFBundleDisplayName");
  if (!m.displayName) m.displayName = plistString(xml, "CFBundleName");
  m.bundleID = plistString(xml, "CFBundleIdentifier");
  return m;
}

BundleMeta readBundleMeta(const std::string& bundlePath) {
  auto text = readWholeFile(bundlePath + "/Contents/Info.plist", kInfoPlistLimit);
  if (!text) return {};
  return bundleMetaFromInfoPlist(*text);
}

bool isSystemLocation(std::string_view path) {
  if (path.empty()) return true;
  // The apps that come with the system are the person's apps.
  if (startsWith(path, "/System/Applications/") ||
      path.find("/Cryptexes/App/System/Applications/") != std::string_view::npos) {
    return false;
  }
  static constexpr std::string_view kSystem[] = {"/System/",   "/Library/Apple/", "/usr/libexec/", "/usr/sbin/",
                                                 "/sbin/",     "/usr/lib/",       "/lib/"};
  for (std::string_view prefix : kSystem) {
    if (startsWith(path, prefix)) return true;
  }
  return false;
}

}  // namespace vigilo
