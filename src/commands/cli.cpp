#include "commands/cli.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <istream>
#include <ostream>
#include <map>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "agents/agent_events.h"
#include "commands/app_folder.h"
#include "commands/channel.h"
#include "platform/socket_listener.h"
#include "commands/mcp_server.h"
#include "commands/setup_prompt.h"
#include "engine/engine.h"
#include "integrations/auto_approve.h"
#include "integrations/connect_command.h"
#include "engine/log.h"
#include "platform/text.h"
#include "platform/fd_stream.h"
#include "platform/files.h"
#include "platform/spawn.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

constexpr double kRequestTimeout = 8.0;
constexpr double kRunReleaseTimeout = 4.0;
constexpr int kUsage = 2;

void err(const std::string& message) { std::fprintf(stderr, "vigilo: %s\n", message.c_str()); }
void out(const std::string& line) { std::printf("%s\n", line.c_str()); }

// One command line after its subcommand: flags may stand anywhere; a flag
// that takes a value takes the next argument.
struct Invocation {
  std::vector<std::string> words;              // positional arguments
  std::map<std::string, std::string> values;   // --for, --reason, --pid, --where
  std::map<std::string, bool> switches;        // --json, --detailed, --screen
  std::vector<std::string> command;            // after "--" (run)
  bool sawDashDash = false;
  std::string error;

  bool has(const std::string& flag) const { return switches.count(flag) > 0; }
  std::optional<std::string> value(const std::string& flag) const {
    auto it = values.find(flag);
    if (it == values.end()) return std::nullopt;
    return it->second;
  }
};

Invocation parse(const std::vector<std::string>& args) {
  static const char* const kValued[] = {"--for", "--reason", "--pid"};
  static const char* const kSwitches[] = {"--json", "--detailed", "--screen", "--remove", "--yes"};
  Invocation inv;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--") {
      inv.sawDashDash = true;
      inv.command.assign(args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    }
    bool known = false;
    for (const char* f : kValued) {
      if (a == f) {
        known = true;
        if (i + 1 >= args.size()) {
          inv.error = a + " needs a value";
          return inv;
        }
        inv.values[a] = args[++i];
      }
    }
    for (const char* f : kSwitches) {
      if (a == f) {
        known = true;
        inv.switches[a] = true;
      }
    }
    if (!known) {
      if (a.size() > 2 && a.rfind("--", 0) == 0) {
        inv.error = "unknown option " + a + ". Run \"vigilo help\" for the commands.";
        return inv;
      }
      inv.words.push_back(a);
    }
  }
  return inv;
}

std::string shortTime(double t) { return formatShortTime(t); }

std::string valueText(const json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_boolean()) return v.get<bool>() ? "on" : "off";
  if (v.is_null()) return "";
  return dumpJson(v);
}

// Prints a failed reply and gives the exit status for it.
int failed(const json& reply) {
  auto e = reply.find("error");
  err(e != reply.end() && e->is_string() ? e->get<std::string>() : "failed");
  return 1;
}

bool isOk(const json& reply) {
  auto it = reply.find("ok");
  return it != reply.end() && it->is_boolean() && it->get<bool>();
}

std::string statusOf(const json& reply) { return reply.value("status", std::string()); }

// "Approve everything: <how it ends>" (with its problem) while it is on.
std::optional<std::string> approveLine(const json& reply) {
  auto a = reply.find("approve_everything");
  if (a == reply.end() || !a->is_object() || a->value("on", false) != true) return std::nullopt;
  std::string line = "Approve everything is on: ";
  auto ends = a->find("ends_line");
  line += ends != a->end() && ends->is_string() ? ends->get<std::string>() : std::string("on");
  auto problem = a->find("problem");
  if (problem != a->end() && problem->is_string()) line += " (" + problem->get<std::string>() + ")";
  return line;
}

std::string holdLine(const json& h) {
  std::string line = "  hold " + h.value("id", std::string()) + ": " + h.value("reason", std::string());
  if (h.contains("end") && h["end"].is_number()) {
    line += " until " + shortTime(h["end"].get<double>());
  } else if (h.contains("pid") && h["pid"].is_number_integer()) {
    line += " while process " + std::to_string(h["pid"].get<long long>()) + " runs";
  } else {
    line += " until released";
  }
  return line;
}

// One row of the energy list; "~" marks a draw estimated from CPU use.
std::string appLine(const json& a) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%s%5.2f W  %s (%s while closed)", a.value("estimated", false) ? "~" : " ",
                a.value("watts", 0.0), a.value("name", std::string()).c_str(),
                a.value("while_closed", std::string("leave")).c_str());
  return buf;
}

void printStatus(const json& r) {
  out(statusOf(r));
  if (auto title = r.find("menu_bar_title"); title != r.end() && title->is_string() && !title->get<std::string>().empty()) {
    out("Menu bar: " + title->get<std::string>());
  }
  if (r.contains("holds") && r["holds"].is_array()) {
    for (const auto& h : r["holds"]) {
      if (h.is_object()) out(holdLine(h));
    }
  }
  if (r.contains("battery") && r["battery"].is_object()) {
    const json& b = r["battery"];
    char buf[128];
    if (b.value("on_power", false)) {
      std::snprintf(buf, sizeof buf, "Battery: %d%% · on power%s", b.value("percent", 0),
                    b.value("charging", false) ? " (charging)" : "");
    } else {
      std::snprintf(buf, sizeof buf, "Battery: %d%% · %.1f W", b.value("percent", 0), b.value("watts", 0.0));
    }
    out(buf);
  } else {
    out("Battery: none");
  }
  if (r.contains("hours_left_closed") && r["hours_left_closed"].is_number()) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "Lid closed: about %.1f h left at %.1f W", r["hours_left_closed"].get<double>(),
                  r.value("closed_estimate_watts", 0.0));
    out(buf);
  }
  if (r.contains("warning") && r["warning"].is_string()) out("note: " + r["warning"].get<std::string>());
  if (auto line = approveLine(r)) out(*line);
  if (r.contains("not_put_back_yet") && r["not_put_back_yet"].is_array() && !r["not_put_back_yet"].empty()) {
    out("not put back yet:");
    for (const auto& item : r["not_put_back_yet"]) out("  " + valueText(item));
  }
  if (r.contains("watching") && r["watching"].is_array() && !r["watching"].empty()) {
    out("agents and apps watched:");
    for (const auto& w : r["watching"]) {
      if (!w.is_object()) continue;
      std::string line = "  " + w.value("description", w.value("name", std::string()));
      if (!w.value("keeps_awake", true)) line += " (tracked only: doesn't keep it awake)";
      out(line);
    }
  }
  if (r.contains("apps_using_energy") && r["apps_using_energy"].is_array() && !r["apps_using_energy"].empty()) {
    out("using the most power:");
    for (const auto& a : r["apps_using_energy"]) {
      if (a.is_object()) out(appLine(a));
    }
  }
  if (r.contains("unavailable") && r["unavailable"].is_array()) {
    for (const auto& u : r["unavailable"]) {
      if (u.is_object()) out("unavailable: " + u.value("detail", u.value("name", std::string())));
    }
  }
}

void printSettings(const json& r) {
  std::string topic;
  if (r.contains("settings") && r["settings"].is_array()) {
    for (const auto& s : r["settings"]) {
      if (!s.is_object()) continue;
      const std::string t = s.value("topic", std::string());
      if (t != topic) {
        if (!topic.empty()) out("");
        out(t);
        topic = t;
      }
      std::string line = "  " + s.value("key", std::string()) + " = " + valueText(s.value("value", json()));
      std::vector<std::string> allowed;
      if (s.contains("allowed") && s["allowed"].is_array()) {
        for (const auto& a : s["allowed"]) allowed.push_back(valueText(a));
      }
      if (allowed.empty() && s.value("type", std::string()) == "bool") allowed = {"on", "off"};
      if (!allowed.empty()) {
        line += "  [";
        for (std::size_t i = 0; i < allowed.size(); ++i) line += (i ? ", " : "") + allowed[i];
        line += "]";
      }
      out(line);
      out("      " + s.value("description", std::string()));
      if (s.contains("note") && s["note"].is_string()) out("      " + s["note"].get<std::string>());
    }
  }
  if (r.contains("lists") && r["lists"].is_array()) {
    out("");
    for (const auto& l : r["lists"]) {
      if (!l.is_object()) continue;
      std::string items;
      if (l.contains("items")) {
        const json& it = l["items"];
        if (it.is_array()) {
          for (const auto& x : it) items += (items.empty() ? "" : ", ") + valueText(x.is_object() ? x.value("name", json()) : x);
        } else if (it.is_object()) {
          for (auto& [k, v] : it.items()) items += (items.empty() ? "" : ", ") + k + ": " + valueText(v);
        }
      }
      out("  " + l.value("name", std::string()) + " = [" + items + "]");
      out("      " + l.value("what", std::string()));
      out("      " + l.value("how", std::string()));
    }
  }
  out("\nChange with: vigilo set <key> <value>. Per-app rules: vigilo rule <app> leave|slow|pause. File: " +
      r.value("path", std::string()));
}

class Cli {
 public:
  explicit Cli(ToolMachine machine)
      : hostProcesses_(std::move(machine.hostProcesses)),
        local_(std::move(machine.local)),
        folder_(toolAppFolder()),
        client_(folder_) {}

  int run(const std::vector<std::string>& args) {
    if (args.empty() || args[0] == "help" || args[0] == "-h" || args[0] == "--help") {
      std::fputs(kHelpText, stdout);
      return 0;
    }
    const std::string name = args[0];
    inv_ = parse(std::vector<std::string>(args.begin() + 1, args.end()));
    if (!inv_.error.empty()) {
      err(inv_.error);
      return kUsage;
    }
    struct Entry {
      const char* name;
      int (Cli::*handler)();
    };
    static const Entry kCommands[] = {
        {"status", &Cli::status},     {"auto", &Cli::modeAuto},    {"off", &Cli::modeOff},
        {"on", &Cli::modeAlways},     {"always", &Cli::modeAlways}, {"sleep", &Cli::sleep},
        {"hold", &Cli::hold},         {"release", &Cli::release},  {"wake-at", &Cli::wakeAt},
        {"check-in", &Cli::checkIn},  {"run", &Cli::runCommand},   {"preset", &Cli::preset},
        {"rule", &Cli::rule},         {"watch", &Cli::watch},      {"unwatch", &Cli::unwatch},
        {"set", &Cli::set},           {"settings", &Cli::settings}, {"config", &Cli::config},
        {"power", &Cli::power},       {"measure", &Cli::measure},  {"anyway", &Cli::anyway},
        {"open", &Cli::open},         {"snapshot", &Cli::snapshot}, {"island", &Cli::island},
        {"energy", &Cli::energy},     
        {"connect", &Cli::connect},   {"prompt", &Cli::prompt},    {"mcp", &Cli::mcp},
        {"event", &Cli::event},       {"apps", &Cli::apps},
        {"disconnect", &Cli::disconnect}, {"approve", &Cli::approve},
    };
    for (const Entry& e : kCommands) {
      if (name == e.name) {
        name_ = name;
        return (this->*e.handler)();
      }
    }
    // The commands the executable runs on the machine itself.
    for (const LocalCommand& c : local_) {
      if (name == c.name) return c.run(folder_, [this](const std::string& flag) { return inv_.has(flag); });
    }
    err("unknown command \"" + name + "\". Run \"vigilo help\" for the commands.");
    return kUsage;
  }

 private:
  json request(const std::string& cmd, const json& args = json::object(), double timeout = kRequestTimeout) {
    return client_.send(cmd, args, timeout);
  }

  // Sends a request and prints the status line (or the JSON) on success.
  int simple(const std::string& cmd, const json& args = json::object()) {
    json r = request(cmd, args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      out(statusOf(r));
    }
    return 0;
  }

  int usage(const std::string& text) {
    err("usage: " + text);
    return kUsage;
  }

  std::optional<double> duration(bool& bad) {
    bad = false;
    auto text = inv_.value("--for");
    if (!text) return std::nullopt;
    auto minutes = parseDuration(*text);
    if (!minutes) {
      err("--for needs a duration like 90m, 2h or 1h30m");
      bad = true;
    }
    return minutes;
  }

  int status() {
    json r = request("status");
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      printStatus(r);
    }
    return 0;
  }

  int modeAuto() { return simple("mode", {{"mode", "auto"}}); }
  int modeOff() { return simple("mode", {{"mode", "off"}}); }
  int modeAlways() {
    bool bad = false;
    auto minutes = duration(bad);
    if (bad) return kUsage;
    json args = {{"mode", "always"}};
    if (minutes) args["minutes"] = *minutes;
    return simple("mode", args);
  }
  int sleep() { return simple("sleep_now"); }

  int hold() {
    bool bad = false;
    auto minutes = duration(bad);
    if (bad) return kUsage;
    json args = {{"reason", inv_.value("--reason").value_or("Kept awake from the terminal")},
                 {"owner", static_cast<long long>(::getppid())}};
    if (minutes) args["minutes"] = *minutes;
    if (auto pid = inv_.value("--pid")) {
      char* end = nullptr;
      long value = std::strtol(pid->c_str(), &end, 10);
      if (pid->empty() || *end != '\0' || value < 1 || value > 2147483647) {
        err("--pid needs a process id, like --pid 4242");
        return kUsage;
      }
      args["pid"] = value;
    }
    json r = request("hold", args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      out(r["hold"].value("id", std::string()));
      // The id alone goes to standard output, for scripts; a cut reason is
      // said beside it.
      if (r.contains("note") && r["note"].is_string()) err(r["note"].get<std::string>());
    }
    return 0;
  }

  int release() {
    json args = inv_.words.empty() ? json{{"all", true}} : json{{"id", inv_.words[0]}};
    json r = request("release", args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    const std::size_t n = r.contains("released") && r["released"].is_array() ? r["released"].size() : 0;
    out(n == 0 ? "No holds to release." : "Released " + std::to_string(n) + (n == 1 ? " hold." : " holds."));
    out(statusOf(r));
    return 0;
  }

  int wakeAt() {
    if (inv_.words.size() != 1) return usage("vigilo wake-at HH:MM [--for 30m] | off");
    bool bad = false;
    auto minutes = duration(bad);
    if (bad) return kUsage;
    json args = {{"time", inv_.words[0]}};
    if (minutes) args["minutes"] = *minutes;
    json r = request("wake_at", args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    const auto at = r.find("wakeAt");
    out(at != r.end() && at->is_number() ? "Wakes at " + formatShortTime(at->get<double>()) + "."
                                         : std::string("No scheduled wake."));
    out(statusOf(r));
    return 0;
  }

  int checkIn() {
    if (inv_.words.size() != 1 ||
        (inv_.words[0] != "0" && inv_.words[0] != "15" && inv_.words[0] != "30" && inv_.words[0] != "60")) {
      return usage("vigilo check-in 0|15|30|60");
    }
    return simple("set", {{"key", "check_in_minutes"}, {"value", std::stoi(inv_.words[0])}});
  }

  int runCommand() {
    if (!inv_.sawDashDash || inv_.command.empty()) {
      std::fprintf(stderr, "vigilo run [--reason text] -- <command> [args…]\n");
      return kUsage;
    }
    const std::string& program = inv_.command[0];
    const std::string reason =
        inv_.value("--reason").value_or("Running " + std::filesystem::path(program).filename().string());
    const long long self = ::getpid();
    json held = request("hold", {{"reason", reason}, {"owner", self}, {"pid", self}});
    std::optional<std::string> holdId;
    if (isOk(held)) {
      holdId = held["hold"].value("id", std::string());
    } else {
      auto e = held.find("error");
      err((e != held.end() && e->is_string() ? e->get<std::string>() : std::string("failed")) + " (running anyway)");
    }

    int status = 127;
    if (!findExecutable(program)) {
      err("couldn't start " + program);
    } else {
      status = spawnAndWait(inv_.command);
      if (status < 0) {
        err("couldn't start " + program);
        status = 127;
      }
    }
    if (holdId) client_.send("release", {{"id", *holdId}}, kRunReleaseTimeout);
    return status;
  }

  // Runs the command through /usr/bin/env as a child in our terminal; while
  // it runs, Ctrl-C is the child's to handle, so we stay to end the hold.
  static int spawnAndWait(const std::vector<std::string>& command) {
    SpawnOptions options;
    options.argv = {"/usr/bin/env"};
    options.argv.insert(options.argv.end(), command.begin(), command.end());
    options.clearSignalMask = true;
    options.defaultSignals = {SIGINT, SIGQUIT};
    struct sigaction ignore {}, oldInt {}, oldQuit {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &oldInt);
    sigaction(SIGQUIT, &ignore, &oldQuit);
    const Spawned child = spawnProcess(options);
    const int result = child ? waitForExit(child.pid).code : -1;
    sigaction(SIGINT, &oldInt, nullptr);
    sigaction(SIGQUIT, &oldQuit, nullptr);
    return result;
  }

  int preset() {
    if (inv_.words.size() != 1) return usage("vigilo preset max_battery|balanced|full_speed");
    return simple("preset", {{"preset", inv_.words[0]}});
  }

  int rule() {
    if (inv_.words.size() != 2) return usage("vigilo rule <app> leave|slow|pause");
    json r = request("rule", {{"app", inv_.words[0]}, {"rule", inv_.words[1]}});
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    // "TextEdit (com.apple.TextEdit) while the lid is closed: pause (preset default)"
    out(r.value("app", inv_.words[0]) + " (" + r.value("bundle_id", std::string()) + ") while the lid is closed: " +
        r.value("rule", std::string()));
    return 0;
  }

  int watchOrUnwatch(bool remove) {
    if (inv_.words.size() != 1) return usage(std::string("vigilo ") + (remove ? "unwatch" : "watch") + " <app>");
    json args = {{"app", inv_.words[0]}};
    if (remove) args["remove"] = true;
    json r = request("watch", args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    std::string list;
    for (const auto& w : r.value("watch_list", json::array())) list += (list.empty() ? "" : ", ") + valueText(w);
    out((remove ? "No longer watching " : "Watching ") + inv_.words[0] + ". Watched: " + (list.empty() ? "none" : list));
    return 0;
  }
  int watch() { return watchOrUnwatch(false); }
  int unwatch() { return watchOrUnwatch(true); }

  int set() {
    if (inv_.words.size() != 2) return usage("vigilo set <key> <value>");
    json r = request("set", {{"key", inv_.words[0]}, {"value", inv_.words[1]}});
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      // The setting's own name and the value it now has, as the app reads them.
      out(r.value("key", inv_.words[0]) + " = " + (r.contains("value") ? valueText(r["value"]) : inv_.words[1]));
      out(statusOf(r));
    }
    return 0;
  }

  int settings() {
    json r = request("schema");
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      printSettings(r);
    }
    return 0;
  }

  int config() {
    json r = request("config");
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    out("Settings file: " + r.value("path", std::string()) + " (edit it; it reloads at once)");
    out(dumpJson(r.value("config", json::object()), 2));
    return 0;
  }

  int power() {
    if (!inv_.words.empty() && inv_.words[0] == "test") return powerTest();
    json r = request("power", json::object(), 10.0);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    auto number = [&](const char* key) -> std::optional<double> {
      return r.contains(key) && r[key].is_number() ? std::optional<double>(r[key].get<double>()) : std::nullopt;
    };
    char buf[160];
    if (auto w = number("system_watts")) {
      std::snprintf(buf, sizeof buf, "Whole machine: %.1f W", *w);
    } else {
      std::snprintf(buf, sizeof buf, "Whole machine: not measured (no battery reading)");
    }
    out(buf);
    if (auto e = number("closed_estimate_watts")) {
      std::snprintf(buf, sizeof buf, "Lid closed: about %.1f W expected", *e);
      std::string line = buf;
      if (auto h = number("hours_left_closed")) {
        std::snprintf(buf, sizeof buf, ", %.1f h of battery", *h);
        line += buf;
      }
      out(line);
    }
    if (r.value("external_display", false)) {
      out("External display: connected (it draws power too; a shut lid counts as open while it is)");
    }
    printApps(r);
    printMeasured(r);
    return 0;
  }

  // The power test's results in a `power` reply.
  static void printMeasured(const json& r) {
    const std::string state = r.value("power_test", std::string());
    if (state == "running") {
      out("Power test: running (" + valueText(r.value("power_test_progress", json("starting"))) + ")");
    } else if (state == "aborted") {
      out("Power test stopped early: " + valueText(r.value("power_test_aborted", json(""))));
    }
    if (r.contains("power_test_result") && r["power_test_result"].is_string()) {
      out(r["power_test_result"].get<std::string>());
    }
    const json effects = r.value("measured_effects", json::object());
    if (!effects.is_object()) return;
    for (auto& [name, watts] : effects.items()) {
      if (name == "total" || !watts.is_number()) continue;
      char buf[120];
      std::snprintf(buf, sizeof buf, "  %s: saves %.1f W", name == "low_power" ? "Low Power Mode" : name.c_str(),
                    watts.get<double>());
      out(buf);
    }
  }

  // `vigilo power test [--detailed] [--screen]`, and `vigilo power test stop`.
  int powerTest() {
    if (inv_.words.size() > 1 && inv_.words[1] == "stop") return simple("power_test", {{"stop", true}});
    if (inv_.words.size() > 1) return usage("vigilo power test [--detailed] [--screen] | vigilo power test stop");
    json args = {{"detailed", inv_.has("--detailed")}, {"screen", inv_.has("--screen")}};
    json r = request("power_test", args);
    if (!isOk(r)) return failed(r);
    const double about = r.value("about_seconds", json(240.0)).is_number() ? r["about_seconds"].get<double>() : 240.0;
    const bool quiet = inv_.has("--json");
    if (!quiet) out("Measuring for about " + std::to_string(static_cast<int>(std::ceil(about / 60.0))) + " min…");
    // The app's clock may run fast (a simulated laptop), never slow: twice
    // the expected length and a margin is plenty.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(about * 2 + 120);
    std::string lastProgress;
    json p;
    while (true) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      p = request("power", json::object(), 10.0);
      if (!isOk(p)) return failed(p);
      const std::string progress = valueText(p.value("power_test_progress", json("")));
      if (!quiet && !progress.empty() && progress != "null" && progress != lastProgress) out("  " + progress);
      lastProgress = progress;
      if (p.value("power_test", std::string()) != "running") break;
      if (std::chrono::steady_clock::now() > deadline) {
        err("the test didn't finish in time; run vigilo power later for results");
        return 1;
      }
    }
    if (quiet) {
      out(dumpJson(p, 2));
    } else {
      printMeasured(p);
    }
    return p.value("power_test", std::string()) == "aborted" ? 1 : 0;
  }

  static void printApps(const json& r) {
    if (!r.contains("apps") || !r["apps"].is_array()) return;
    for (const auto& a : r["apps"]) {
      if (a.is_object()) out(appLine(a));
    }
  }

  // `vigilo apps`: what the closed-lid session slows or pauses right now,
  // and what it has not put back yet.
  int apps() {
    json r = request("status");
    if (!isOk(r)) return failed(r);
    const json targeted = r.value("targeted", json::array());
    const json unrestored = r.value("unrestored", json::array());
    if (inv_.has("--json")) {
      out(dumpJson(json{{"targeted", targeted}, {"unrestored", unrestored}}, 2));
      return 0;
    }
    if (targeted.empty()) {
      out(r.value("lid_closed", false) && r.value("keeping_awake", false)
              ? "Nothing would be slowed or paused right now"
              : "Nothing is slowed or paused: that happens while the lid is shut and the machine is held awake.");
    }
    for (const auto& t : targeted) {
      if (!t.is_object()) continue;
      out("  " + t.value("rule", std::string()) + "  " + t.value("name", std::string()) + " (pid " +
          valueText(t.value("pid", json(0))) + ")");
    }
    if (!unrestored.empty()) {
      out("not put back yet:");
      for (const auto& u : unrestored) out("  " + valueText(u));
    }
    return 0;
  }

  int measure() {
    json r = request("measure", json::object(), 20.0);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    char buf[200];
    const json saving = r.value("measured_saving_watts", json(nullptr));
    std::snprintf(buf, sizeof buf, "Slowing and pausing the apps the lid-closed rules pick saves about %.1f W",
                  saving.is_number() ? saving.get<double>() : 0.0);
    out(buf);
    const json apps = r.value("measured_apps", json::array());
    if (!apps.is_array() || apps.empty()) out("  (no app would be slowed or paused right now)");
    for (const auto& a : apps) {
      if (!a.is_object()) continue;
      std::snprintf(buf, sizeof buf, "  %s  (measured: saves %.1f W)", a.value("name", std::string()).c_str(),
                    a.value("saves_watts", 0.0));
      out(buf);
    }
    out("A rough, short-window estimate.");
    return 0;
  }

  int anyway() {
    if (inv_.words.size() == 1 && inv_.words[0] == "on") {
      err("going below the battery limit can only be allowed in Vigilo itself (it's the person's call)");
      return 1;
    }
    if (inv_.words.size() != 1 || inv_.words[0] != "off") return usage("vigilo anyway off");
    return simple("override_floor", {{"on", false}});
  }

  int open() {
    json args = json::object();
    if (!inv_.words.empty()) args["where"] = inv_.words[0];
    return simple("open", args);
  }
  int snapshot() {
    if (inv_.words.size() != 1) return usage("vigilo snapshot <path>");
    // The app runs elsewhere: a relative name means this shell's folder.
    std::error_code ec;
    std::string path = inv_.words[0];
    if (auto absolute = std::filesystem::absolute(path, ec); !ec) path = absolute.lexically_normal().string();
    // Drawing starts a panel process: give it longer than a plain request.
    json r = request("snapshot", {{"path", path}}, 25.0);
    if (!isOk(r)) return failed(r);
    out(inv_.has("--json") ? dumpJson(r, 2) : "Saved the panel to " + r.value("path", path));
    return 0;
  }
  int island() {
    if (inv_.words.empty() || inv_.words.size() > 2) return usage("vigilo island <title> [subtitle]");
    json args = {{"title", inv_.words[0]}};
    if (inv_.words.size() == 2) args["subtitle"] = inv_.words[1];
    return simple("island", args);
  }
  int energy() {
    json r = request("energy");
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else if (r.value("apps", json::array()).empty()) {
      out("No app has used measurable energy yet (the first reading needs two samples).");
    } else {
      printApps(r);
    }
    return 0;
  }

  // `vigilo event <agent>`, run by an agent's hook on every prompt: it never
  // fails, never prints and never waits for the app, so the agent is never
  // held up by it.
  int event() {
    if (inv_.words.empty()) return 0;
    auto input = AgentEvents::readHookInput(STDIN_FILENO);
    if (!input) return 0;
    std::unique_ptr<Processes> procs;
    try {
      if (hostProcesses_) procs = hostProcesses_();
    } catch (...) {
      procs = nullptr;  // no walk up to the agent then
    }
    AgentEvents::record(folder_, inv_.words[0], *input, SystemClock().now(), procs.get(), ::getppid());
    return 0;
  }

  // `vigilo mcp`: the MCP server on standard input and output until the
  // input ends. Holds it takes belong to the agent session that started it.
  int mcp() {
    // Nothing else reads or writes the standard streams in this mode, so the
    // server reads and writes the descriptors directly, in whole chunks.
    FdStreamBuf inBuf(0), outBuf(1), logBuf(2);
    std::istream in(&inBuf);
    std::ostream out(&outBuf), errors(&logBuf);
    // A client that hangs up mid-answer must not kill us with SIGPIPE: the
    // failed write ends the server instead.
    std::signal(SIGPIPE, SIG_IGN);
    McpContext context{[this](const std::string& cmd, const json& args, double timeout) {
                         return client_.send(cmd, args, timeout);
                       },
                       static_cast<std::int64_t>(::getppid()), &errors};
    return runMcpServer(in, out, std::move(context));
  }

  int prompt() {
    out(setupPrompt());
    return 0;
  }

  int connect() {
    AIConnect agents(AgentPlaces::fromEnvironment());
    return connectCommand(inv_.words, agents);
  }

  int disconnect() {
    AIConnect agents(AgentPlaces::fromEnvironment());
    return disconnectCommand(agents);
  }

  // `vigilo approve on [--for D] | until-done | off`, or the state alone.
  int approve() {
    const std::string word = inv_.words.empty() ? "" : inv_.words[0];
    json args;
    if (word == "on" || word == "until-done") {
      bool bad = false;
      auto minutes = duration(bad);
      if (bad) return kUsage;
      args = {{"on", true}, {"ends", word == "until-done" ? "work" : minutes ? "time" : "manual"}};
      if (minutes) args["hours"] = *minutes / 60;
    } else if (word == "off") {
      args = {{"on", false}};
    } else if (word.empty()) {
      json r = request("status");
      if (!isOk(r)) return failed(r);
      out(approveLine(r).value_or("Approve everything is off."));
      return 0;
    } else {
      return usage("vigilo approve on [--for 2h] | until-done | off");
    }
    if (inv_.words.size() > 1) return usage("vigilo approve on [--for 2h] | until-done | off");
    if (args["on"] == true) {
      err("Claude Code and Codex will run commands, edit files and use the network without asking you, in every "
          "project.");
    }
    json r = request("approve", args);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
    } else {
      out(r.value("message", std::string()));
      if (auto line = approveLine(r)) out(*line);
    }
    return 0;
  }

  int notBuilt() {
    err(name_ + " isn't part of this build of Vigilo yet.");
    return 1;
  }

  ProcessesFactory hostProcesses_;
  std::vector<LocalCommand> local_;
  std::string folder_;
  RequestClient client_;
  Invocation inv_;
  std::string name_;
};

}  // namespace

std::optional<double> parseDuration(const std::string& text) {
  if (text.empty()) return std::nullopt;
  auto cut = [](double m) { return std::min(m, 10080.0); };
  // A bare number is digits with at most one decimal point: strtod alone
  // would also take "1e3", "0x10", "inf" and leading blanks.
  const bool bare = text.find_first_not_of("0123456789.") == std::string::npos &&
                    std::count(text.begin(), text.end(), '.') <= 1 && text != ".";
  if (bare) return cut(std::strtod(text.c_str(), nullptr));
  double total = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t start = i;
    bool dot = false;
    while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) || (text[i] == '.' && !dot))) {
      if (text[i] == '.') dot = true;
      ++i;
    }
    if (i == start || i >= text.size()) return std::nullopt;
    const std::string number = text.substr(start, i - start);
    if (number == ".") return std::nullopt;
    const double value = std::strtod(number.c_str(), nullptr);
    const char unit = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    if (unit == 'h') {
      total += value * 60;
    } else if (unit == 'm') {
      total += value;
    } else {
      return std::nullopt;
    }
    ++i;
  }
  if (!std::isfinite(total)) return std::nullopt;
  return cut(total);
}

std::string toolAppFolder() {
  const char* home = std::getenv("VIGILO_HOME");
  if (home != nullptr && *home != '\0') return home;
  return xdgAppFolder();
}

int runCli(const std::vector<std::string>& args, ToolMachine machine) {
  Cli cli(std::move(machine));
  int status = cli.run(args);
  std::fflush(stdout);
  return status;
}

}  // namespace vigilo
