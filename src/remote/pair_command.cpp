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
  // The quiet zone scanners expect around the code.
  constexpr int kQuiet = 4;
  auto dark = [&](int x, int y) {
    if (x < 0 || y < 0 || x >= n || y >= n) return false;
    return (qr->data[y * n + x] & 1) != 0;
  };
  // Colours of the 256-colour cube, which terminal themes leave alone (the
  // 16 basic colours follow the theme, and a light theme's "black" can be
  // anything): black modules on white, whatever the terminal's own colours.
  auto colour = [](bool isDark, bool background) {
    return std::string(background ? "48;5;" : "38;5;") + (isDark ? "16" : "231");
  };
  std::string out;
  for (int y = -kQuiet; y < n + kQuiet; y += 2) {
    // Each character shows two modules: the upper half block in the
    // foreground colour, the lower one in the background colour.
    int lastTop = -1, lastBottom = -1;
    for (int x = -kQuiet; x < n + kQuiet; ++x) {
      const bool top = dark(x, y), bottom = dark(x, y + 1);
      if (top != lastTop || bottom != lastBottom) {
        out += "\x1b[" + colour(top, false) + ";" + colour(bottom, true) + "m";
        lastTop = top;
        lastBottom = bottom;
      }
      out += "▀";
    }
    out += "\x1b[0m\n";
  }
  return out;
}

namespace {

// `vigilo pair`'s switches; nothing when they don't make one request.
struct PairArgs {
  std::optional<std::string> relay, page, revoke;
  bool noQr = false, list = false, json = false, all = false, off = false, on = false;
};

std::optional<PairArgs> parsePairArgs(const std::vector<std::string>& args) {
  PairArgs p;
  const std::pair<const char*, std::optional<std::string>*> valued[] = {
      {"--relay", &p.relay}, {"--page", &p.page}, {"--revoke", &p.revoke}};
  const std::pair<const char*, bool*> switches[] = {{"--no-qr", &p.noQr}, {"--list", &p.list}, {"--json", &p.json},
                                                    {"--all", &p.all},    {"--off", &p.off},   {"--on", &p.on}};
  for (std::size_t i = 0; i < args.size(); ++i) {
    bool known = false;
    for (const auto& [flag, into] : valued) {
      if (args[i] != flag) continue;
      if (i + 1 >= args.size()) return std::nullopt;
      *into = args[++i];
      known = true;
    }
    for (const auto& [flag, into] : switches) {
      if (args[i] == flag) *into = known = true;
    }
    if (!known) return std::nullopt;
  }
  // "--revoke --all" reads as it sounds.
  if (p.revoke && *p.revoke == "--all") {
    p.revoke.reset();
    p.all = true;
  }
  const int actions = (p.list ? 1 : 0) + (p.revoke ? 1 : 0) + (p.all ? 1 : 0) + (p.off ? 1 : 0) + (p.on ? 1 : 0);
  if (actions > 1 || (actions == 1 && (p.relay || p.page || p.noQr)) || (p.json && !p.list)) return std::nullopt;
  return p;
}

int listPhones(const RemoteSettings& settings, bool asJson) {
  if (asJson) {
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
                dateText(p.added).c_str(), p.lastSeen ? (", last seen " + dateText(*p.lastSeen)).c_str() : "");
  }
  if (!settings.enabled) std::printf("Phone control is off (vigilo pair --on turns it back on).\n");
  return 0;
}

int revokePhones(const StateFiles& files, const PairArgs& a) {
  bool found = true;
  auto saved = RemoteSettings::update(files, [&](RemoteSettings& s) {
    if (a.all) s.revokeAll();
    if (a.revoke) found = s.revoke(*a.revoke);
    return found;
  });
  if (!found) return fail("no paired phone has the id " + *a.revoke + " (see vigilo pair --list)");
  if (!saved) return fail("Couldn't save the phone settings");
  std::printf("%s, and any copy of its QR code, stops working at once.\n", a.all ? "Every paired phone" : "This phone");
  return 0;
}

int switchPhoneControl(const StateFiles& files, bool on) {
  auto saved = RemoteSettings::update(files, [&](RemoteSettings& s) {
    s.enabled = on;
    return true;
  });
  if (!saved) return fail("Couldn't save the phone settings");
  std::printf("%s\n", on ? "Phone control is on." : "Phone control is off: no phone command is read until vigilo pair --on.");
  return 0;
}

int pairNewPhone(const StateFiles& files, RemoteSettings settings, const PairArgs& a, const std::string& machine) {
  for (const auto& address : {a.relay, a.page}) {
    if (!address) continue;
    if (auto problem = relayAddressProblem(*address)) return fail(*problem);
  }
  RemoteSettings::Added added;
  // pairNewPhone saves by itself, under the lock.
  RemoteSettings::update(files, [&](RemoteSettings& s) {
    if (a.relay) s.relay = *a.relay;
    if (a.page) s.pageBase = *a.page;
    added = s.pairNewPhone(files, static_cast<double>(std::time(nullptr)));
    settings = s;
    return false;
  });
  if (!added.phone) return fail(added.error);
  const std::string link = settings.pairingLink(*added.phone);
  if (!a.noQr) {
    const std::string qr = terminalQrCode(link);
    if (!qr.empty()) std::printf("%s\n", qr.c_str());
  }
  std::printf("Scan with the Vigilo app or your phone's camera.\n");
  std::printf("Anyone with this code can control this %s.\n\n", machine.c_str());
  std::printf("%s\n\n", link.c_str());
  std::printf(
      "Paired as %s. Commands are end-to-end encrypted. A phone can't loosen the battery limit or the heat guard.\n",
      added.phone->id.c_str());
  std::printf("Undo with: vigilo pair --revoke %s\n", added.phone->id.c_str());
  return 0;
}

}  // namespace

int runPair(const std::vector<std::string>& args, const std::string& appFolder, const std::string& machine) {
  const auto a = parsePairArgs(args);
  if (!a) return usage();
  StateFiles files(appFolder);
  RemoteSettings settings = RemoteSettings::load(files);
  if (a->list) return listPhones(settings, a->json);
  if (a->revoke || a->all) return revokePhones(files, *a);
  if (a->off || a->on) return switchPhoneControl(files, a->on);
  return pairNewPhone(files, std::move(settings), *a, machine);
}

}  // namespace vigilo
