#include "commands/cli.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <istream>
#include <ostream>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "agents/agent_events.h"
#include "commands/app_folder.h"
#include "commands/channel.h"
#include "commands/cli_args.h"
#include "commands/cli_print.h"
#include "commands/command_table.h"
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

using namespace cli;

constexpr double kRequestTimeout = 8.0;
constexpr double kRunReleaseTimeout = 4.0;
constexpr int kUsage = 2;

class Cli {
 public:
  explicit Cli(ToolMachine machine)
      : hostProcesses_(std::move(machine.hostProcesses)),
        local_(std::move(machine.local)),
        words_(std::move(machine.words)),
        folder_(toolAppFolder()),
        client_(folder_) {}

  int run(const std::vector<std::string>& args) {
    if (args.empty()) {
      std::fputs(helpText(words_).c_str(), stdout);
      return 0;
    }
    const std::string name = args[0];
    const CommandDoc* doc = findCommand(name);
    if (doc == nullptr) {
      err("unknown command \"" + name + "\". Run \"vigilo help\" for the commands.");
      return kUsage;
    }
    inv_ = parse(std::vector<std::string>(args.begin() + 1, args.end()));
    // An agent's hook passes its words as they come (Codex's notify appends
    // a JSON argument): nothing in them is an option, and nothing refuses.
    if (name == "event") {
      inv_ = {};
      inv_.words.assign(args.begin() + 1, args.end());
    }
    if (!inv_.error.empty()) {
      err(inv_.error);
      return kUsage;
    }
    if (auto refused = unacceptedFlag(*doc)) {
      err(*refused);
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
    name_ = name;
    return notBuilt();
  }

 private:
  // A flag the command doesn't take is a usage error, not silently dropped;
  // the hook's `event` takes whatever it is given, since it never fails.
  std::optional<std::string> unacceptedFlag(const CommandDoc& doc) const {
    if (doc.name == "event") return std::nullopt;
    std::vector<std::string> given;
    for (const auto& [flag, on] : inv_.switches) given.push_back(flag);
    for (const auto& [flag, value] : inv_.values) given.push_back(flag);
    for (const std::string& flag : given) {
      if (std::find(doc.flags.begin(), doc.flags.end(), flag) != doc.flags.end()) continue;
      if (flag == "--json") {
        return "--json means nothing for " + doc.name + ": it prints no data. Run \"vigilo help " + doc.name +
               "\" for its options.";
      }
      return doc.name + " doesn't take " + flag + ". Run \"vigilo help " + doc.name + "\" for its options.";
    }
    return std::nullopt;
  }

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
      printStatus(r, words_);
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
      // Stored, but this machine can't honour it: said, not hidden.
      if (r.contains("note") && r["note"].is_string()) out(r["note"].get<std::string>());
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
    printPower(r, words_);
    return 0;
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
      printMeasured(p, words_);
    }
    return p.value("power_test", std::string()) == "aborted" ? 1 : 0;
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
    printTargets(r, targeted, unrestored);
    return 0;
  }

  int measure() {
    json r = request("measure", json::object(), 20.0);
    if (!isOk(r)) return failed(r);
    if (inv_.has("--json")) {
      out(dumpJson(r, 2));
      return 0;
    }
    printMeasure(r);
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

  // `vigilo event <agent> [json]`, run by an agent's hook on every prompt: it never
  // fails, never prints and never waits for the app, so the agent is never
  // held up by it.
  int event() {
    if (inv_.words.empty()) return 0;
    // Codex's notify passes its JSON as the last argument, with no input.
    std::optional<std::string> input;
    if (inv_.words.size() > 1) {
      input = inv_.words.back();
    } else {
      input = AgentEvents::readHookInput(STDIN_FILENO);
    }
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
                       static_cast<std::int64_t>(::getppid()), &errors, words_};
    return runMcpServer(in, out, std::move(context));
  }

  int prompt() {
    out(inv_.has("--json") ? dumpJson(json{{"prompt", setupPrompt()}}, 2) : setupPrompt());
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
      if (inv_.has("--json")) {
        out(dumpJson(json{{"ok", true}, {"approve_everything", r.value("approve_everything", json{{"on", false}})}}, 2));
      } else {
        out(approveLine(r).value_or("Approve everything is off."));
      }
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
  MachineWords words_;
  std::string folder_;
  RequestClient client_;
  Invocation inv_;
  std::string name_;
};

}  // namespace

std::string toolAppFolder() {
  const char* home = std::getenv("VIGILO_HOME");
  if (home != nullptr && *home != '\0') return home;
  return xdgAppFolder();
}

int runCli(const std::vector<std::string>& args, ToolMachine machine) {
  Cli tool(std::move(machine));
  int status = tool.run(args);
  std::fflush(stdout);
  return status;
}

}  // namespace vigilo
