#include "remote/pair_command.h"

#include <qrencode.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/text.h"
#include "remote/pairing.h"

namespace vigilo {
namespace {

constexpr const char* kUsage =
    "vigilo: usage: vigilo pair [--relay URL] [--page URL] [--no-qr] | --list [--json] | --revoke <id> | --all | --off "
    "| --on";

struct QrFree {
  void operator()(QRcode* q) const { QRcode_free(q); }
};

int usage() {
  std::fprintf(stderr, "%s\n", kUsage);
  return 2;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "vigilo: %s\n", message.c_str());
  return 1;
}

std::string dateText(double t) {
  std::time_t secs = static_cast<std::time_t>(t);
  std::tm tm{};
  localtime_r(&secs, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M", &tm);
  return buf;
}

}  // namespace

std::string terminalQrCode(const std::string& text) {
  std::unique_ptr<QRcode, QrFree> qr(QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_M));
  if (!qr) return {};
  const int n = qr->width;
  constexpr int kQuiet = 2;
  auto dark = [&](int x, int y) {
    if (x < 0 || y < 0 || x >= n || y >= n) return false;
    return (qr->data[y * n + x] & 1) != 0;
  };
  std::string out;
  for (int y = -kQuiet; y < n + kQuiet; y += 2) {
    for (int x = -kQuiet; x < n + kQuiet; ++x) {
      const bool top = !dark(x, y);
      const bool bottom = !dark(x, y + 1);
      out += top && bottom ? "█" : top ? "▀" : bottom ? "▄" : " ";
    }
    out += "\n";
  }
  return out;
}

int runPair(const std::vector<std::string>& args, const std::string& appFolder) {
  StateFiles files(appFolder);
  RemoteSettings settings = RemoteSettings::load(files);
  std::optional<std::string> relay, page;
  bool noQr = false, list = false, json = false, all = false, off = false, on = false;
  std::optional<std::string> revoke;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::optional<std::string>& into) {
      if (i + 1 >= args.size()) return false;
      into = args[++i];
      return true;
    };
    if (a == "--relay") {
      if (!value(relay)) return usage();
    } else if (a == "--page") {
      if (!value(page)) return usage();
    } else if (a == "--revoke") {
      if (!value(revoke)) return usage();
    } else if (a == "--no-qr") {
      noQr = true;
    } else if (a == "--list") {
      list = true;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--all") {
      all = true;
    } else if (a == "--off") {
      off = true;
    } else if (a == "--on") {
      on = true;
    } else {
      return usage();
    }
  }
  // "--revoke --all" reads as it sounds.
  if (revoke && *revoke == "--all") {
    revoke.reset();
    all = true;
  }
  const int actions = (list ? 1 : 0) + (revoke ? 1 : 0) + (all ? 1 : 0) + (off ? 1 : 0) + (on ? 1 : 0);
  if (actions > 1 || (actions == 1 && (relay || page || noQr)) || (json && !list)) return usage();

  if (list) {
    if (json) {
      nlohmann::json out = {{"enabled", settings.enabled}, {"relay", settings.relay}, {"page", settings.pageBase}};
      nlohmann::json phones = nlohmann::json::array();
      for (const PairedPhone& p : settings.phones) {
        phones.push_back({{"id", p.id},
                          {"name", p.name},
                          {"added", p.added},
                          {"last_seen", p.lastSeen ? nlohmann::json(*p.lastSeen) : nlohmann::json(nullptr)}});
      }
      out["phones"] = std::move(phones);
      std::printf("%s\n", dumpJson(out, 2).c_str());
      return 0;
    }
    if (settings.phones.empty()) std::printf("No phone is paired. Run \"vigilo pair\" to pair one.\n");
    for (const PairedPhone& p : settings.phones) {
      // The name is the phone's own word: it reaches the terminal defused.
      std::printf("%s  %s, paired %s%s\n", terminalSafe(p.id).c_str(), terminalSafe(p.name).c_str(),
                  dateText(p.added).c_str(),
                  p.lastSeen ? (", last seen " + dateText(*p.lastSeen)).c_str() : "");
    }
    if (!settings.enabled) std::printf("Phone control is off (vigilo pair --on turns it back on).\n");
    return 0;
  }
  if (revoke || all) {
    bool found = true;
    auto saved = RemoteSettings::update(files, [&](RemoteSettings& s) {
      if (all) s.revokeAll();
      if (revoke) found = s.revoke(*revoke);
      return found;
    });
    if (!found) return fail("no paired phone has the id " + *revoke + " (see vigilo pair --list)");
    if (!saved) return fail("Couldn't save the phone settings");
    std::printf("%s, and any copy of its QR code, stops working at once.\n", all ? "Every paired phone" : "This phone");
    return 0;
  }
  if (off || on) {
    auto saved = RemoteSettings::update(files, [&](RemoteSettings& s) {
      s.enabled = on;
      return true;
    });
    if (!saved) return fail("Couldn't save the phone settings");
    std::printf("%s\n",
                on ? "Phone control is on." : "Phone control is off: no phone command is read until vigilo pair --on.");
    return 0;
  }

  for (const auto& address : {relay, page}) {
    if (!address) continue;
    if (auto problem = relayAddressProblem(*address)) return fail(*problem);
  }
  RemoteSettings::Added added;
  // pairNewPhone saves by itself, under the lock.
  RemoteSettings::update(files, [&](RemoteSettings& s) {
    if (relay) s.relay = *relay;
    if (page) s.pageBase = *page;
    added = s.pairNewPhone(files, static_cast<double>(std::time(nullptr)));
    settings = s;
    return false;
  });
  if (!added.phone) return fail(added.error);
  const std::string link = settings.pairingLink(*added.phone);
  if (!noQr) {
    const std::string qr = terminalQrCode(link);
    if (!qr.empty()) std::printf("%s\n", qr.c_str());
  }
  std::printf("Scan with the Vigilo app or your phone's camera.\n");
  std::printf("Anyone with this code can control this Mac.\n\n");
  std::printf("%s\n\n", link.c_str());
  std::printf(
      "Paired as %s. Commands are end-to-end encrypted. A phone can't loosen the battery limit or the heat guard.\n",
      added.phone->id.c_str());
  std::printf("Undo with: vigilo pair --revoke %s\n", added.phone->id.c_str());
  return 0;
}

}  // namespace vigilo
