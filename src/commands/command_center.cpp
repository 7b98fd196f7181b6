#include "commands/command_center.h"

#include "commands/reply_values.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <unistd.h>

#include "agents/agent_work.h"
#include "closedlid/app_lookup.h"
#include "closedlid/closed_lid.h"
#include "agents/careful_file.h"
#include "commands/channel.h"
#include "commands/settings_schema.h"
#include "integrations/auto_approve.h"
#include "commands/in_app_change.h"
#include "platform/files.h"
#include "savings/power_watch.h"
#include "savings/savings.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

constexpr double kMaxPid = 2147483647;
// Requests nest two levels; deeper ones are not ours, and the JSON library
// recurses when it copies, compares or writes a value.
constexpr int kMaxRequestDepth = 32;
// A hold's reason is shown in a menu and a status line: longer ones are cut
// (and the reply says so). Other texts name things (apps, agents, keys) and
// are refused past kMaxName.
constexpr std::size_t kMaxReason = 200;
constexpr std::size_t kMaxName = 1024;
constexpr double kMaxMinutes = 10080;

bool validId(const std::string& id) {
  if (id.empty() || id.size() > 64) return false;
  for (unsigned char c : id) {
    if (!std::isalnum(c) && c != '-') return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> textArg(const json& args, const char* key) {
  auto it = args.find(key);
  if (it == args.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<double> numberArg(const json& args, const char* key, double bound) {
  auto it = args.find(key);
  if (it == args.end()) return std::nullopt;
  double value = 0;
  if (it->is_number()) {
    value = it->get<double>();
  } else if (it->is_string()) {
    const std::string s = it->get<std::string>();
    if (s.empty() || std::isspace(static_cast<unsigned char>(s.front())) ||
        std::isspace(static_cast<unsigned char>(s.back()))) {
      return std::nullopt;
    }
    char* end = nullptr;
    value = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size()) return std::nullopt;
  } else {
    return std::nullopt;
  }
  if (!std::isfinite(value)) return std::nullopt;
  // Bounded both ways before anyone converts it to an integer.
  return std::clamp(value, -bound, bound);
}

std::optional<bool> truthArg(const json& args, const char* key) {
  auto it = args.find(key);
  if (it == args.end()) return std::nullopt;
  if (it->is_boolean()) return it->get<bool>();
  if (it->is_number()) return it->get<double>() != 0;
  return std::nullopt;
}

CommandCenter::CommandCenter(Engine& engine, std::function<void()> quit) : engine_(engine), quit_(std::move(quit)) {}

json CommandCenter::ok() { return ok(json::object()); }

json CommandCenter::ok(json fields) {
  json reply = {{"ok", true}, {"status", engine_.statusLine()}};
  for (auto& [k, v] : fields.items()) reply[k] = v;
  return reply;
}

json CommandCenter::fail(const std::string& error) { return {{"ok", false}, {"error", error}}; }

void CommandCenter::receive(const std::string& text) {
  // Too deep to be ours: dropped before the library builds it.
  if (!jsonNestingWithin(text, kMaxRequestDepth)) return;
  json request = json::parse(text, nullptr, false);
  if (!request.is_object()) return;
  auto id = request.find("id");
  auto cmd = request.find("cmd");
  if (id == request.end() || !id->is_string() || cmd == request.end() || !cmd->is_string()) return;
  const std::string idText = id->get<std::string>();
  if (!validId(idText)) return;
  // The caller has given up (the app was stopped, or too busy): doing it
  // now would do what the caller reported as failed.
  if (auto deadline = request.find(kDeadlineKey); deadline != request.end() && deadline->is_number()) {
    const double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    if (now > deadline->get<double>() - kAnswerMargin) return;
  }
  auto args = request.find("args");
  const json argObject = (args != request.end() && args->is_object()) ? *args : json::object();
  const std::string name = cmd->get<std::string>();
  json reply = tooLong(argObject);
  if (reply.is_null() && name == "measure" && savings_) return measure(idText);
  if (auto later = deferred_.find(name); reply.is_null() && later != deferred_.end()) {
    later->second(argObject, [folder = engine_.files().dir(), idText](const json& r) { writeReply(folder, idText, r); });
    return;
  }
  if (reply.is_null()) reply = handle(name.size() > kMaxName ? cutUtf8(name, 64) : name, argObject);
  writeReply(engine_.files().dir(), idText, reply);
  if (name == "quit" && quit_) quit_();
}

json CommandCenter::tooLong(const json& args) {
  for (auto& [key, value] : args.items()) {
    if (key == "reason" || !value.is_string() || value.get_ref<const std::string&>().size() <= kMaxName) continue;
    return fail(cutUtf8(key, 64) + " is too long (at most " + std::to_string(kMaxName) + " characters)");
  }
  return nullptr;
}

json CommandCenter::handle(const std::string& cmd, const json& args) {
  try {
    if (cmd == "status") return statusDictionary();
    if (cmd == "mode") return mode(args);
    if (cmd == "sleep_now") {
      engine_.sleepNow();
      return ok();
    }
    if (cmd == "release_own") return releaseOwn(args);
    if (cmd == "release_pid") return releasePid(args);
    if (cmd == "quit") return ok({{"quitting", true}});
    if (cmd == "hold") return hold(args);
    if (cmd == "release") return release(args);
    if (cmd == "preset") return preset(args);
    if (cmd == "rule") return rule(args);
    if (cmd == "watch") return watch(args);
    if (cmd == "agent") return agent(args);
    if (cmd == "set") return set(args);
    if (cmd == "schema") {
      json d =
          SettingsSchema::describe(engine_.config(), engine_.files().path(kConfigFile), engine_.platform().words());
      return ok(d);
    }
    if (cmd == "config") {
      return ok({{"path", engine_.files().path(kConfigFile)}, {"config", engine_.config().toJson()}});
    }
    if (cmd == "override_floor") return overrideFloor(args);
    if (cmd == "track") return track(args);
    if (cmd == "energy") return energy();
    if (cmd == "power") return power();
    if (cmd == "power_test") return powerTest(args);
    if (cmd == "panel") {
      json reply = statusDictionary();
      reply["ignored_sleep_blockers"] = ignoredSleepBlockers();
      if (savings_) {
        const json keys = savings_->panelKeys();
    for (auto& [k, v] : keys.items()) reply[k] = v;
      }
      return reply;
    }
    if (cmd == "measure" && !savings_) return fail("Vigilo isn't measuring savings in this mode");
    if (cmd == "approve") return approve(args);
    if (auto it = extra_.find(cmd); it != extra_.end()) return it->second(args);
    if (deferred_.count(cmd) != 0) return fail(cmd + " can only be asked through the vigilo command");
  } catch (const std::exception& e) {
    // A request never takes the app down; the person learns what went wrong.
    return fail(std::string("Vigilo couldn't do that: ") + e.what());
  }
  return fail("Unknown command " + cmd);
}

// The apps holding sleep off that do not keep the machine awake: requests
// don't count (`countRequests` off), or one has been held longer than the
// requests' time limit.
json CommandCenter::ignoredSleepBlockers() const {
  json out = json::array();
  if (!work_) return out;
  for (const SleepBlocker& b : work_->watcher().blockers()) {
    const std::string id = "request:" + b.name;
    const bool counted = std::any_of(work_->sessions().begin(), work_->sessions().end(), [&](const AgentSession& s) {
      return s.id == id && std::find(s.pids.begin(), s.pids.end(), b.pid) != s.pids.end();
    });
    if (counted) continue;
    out.push_back({{"pid", b.pid}, {"name", b.name}, {"since", timeOrNull(b.since)}});
  }
  return out;
}

json CommandCenter::approve(const json& args) {
  if (!approve_) return fail("Approve everything isn't offered by this app");
  auto on = truthArg(args, "on");
  if (!on) return fail("on: true to turn Approve everything on, false to turn it off");
  bool done = false;
  std::string message;
  if (*on) {
    const std::string ends = textArg(args, "ends").value_or("manual");
    AutoApprove::Ends e = AutoApprove::Ends::Manual;
    if (ends == "work") {
      e = AutoApprove::Ends::Work;
    } else if (ends == "time") {
      e = AutoApprove::Ends::Time;
    } else if (ends != "manual") {
      return fail("ends: work, time or manual");
    }
    message = approve_->turnOn(e, numberArg(args, "hours", 24 * 365), &done);
  } else {
    message = approve_->turnOff(&done);
  }
  if (!done) return fail(message);
  return ok({{"message", message}, {"approve_everything", approveDictionary()}});
}

json CommandCenter::powerTest(const json& args) {
  if (!savings_) {
    return fail("This " + engine_.platform().words().machine +
                " doesn't report whole-system power, so savings can't be measured");
  }
  PowerTest& test = savings_->test();
  if (truthArg(args, "stop").value_or(false)) {
    if (!test.running()) return fail("No power test is running");
    test.stop();
    return ok({{"stopped", true}});
  }
  if (auto refused = test.start(truthArg(args, "screen").value_or(false), truthArg(args, "detailed").value_or(false))) {
    return fail(*refused);
  }
  return ok({{"started", true},
             {"about_seconds", test.aboutSeconds()},
             {"next", "Call power again (vigilo power) for results once power_test shows done."}});
}

void CommandCenter::measure(const std::string& id) {
  const std::string dir = engine_.files().dir();
  savings_->measureSavings([this, dir, id](json fields, std::optional<std::string> error) {
    writeReply(dir, id, error ? fail(*error) : ok(fields));
  });
}

json CommandCenter::track(const json& args) {
  auto agent = textArg(args, "agent");
  if (!agent || agent->empty()) return fail("needs agent");
  auto lower = [](std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
  };
  const AgentSession* found = nullptr;
  if (work_) {
    for (const AgentSession& s : work_->sessions()) {
      if (lower(s.kind.name) == lower(*agent) || lower(s.kind.id) == lower(*agent)) {
        found = &s;
        break;
      }
    }
  }
  if (!found) return fail("no agent " + *agent + " is running");
  Config c = engine_.config();
  auto it = std::find(c.trackOnly.begin(), c.trackOnly.end(), found->kind.name);
  const bool tracked = it != c.trackOnly.end();
  const bool keeps = truthArg(args, "keeps").value_or(tracked);
  if (keeps && tracked) c.trackOnly.erase(it);
  if (!keeps && !tracked) c.trackOnly.push_back(found->kind.name);
  saveFromOutside(c);
  return ok({{"agent", found->kind.name}, {"keeps", keeps}});
}

void CommandCenter::saveFromOutside(const Config& config) {
  if (!engine_.preview()) writeFileDurably(engine_.files().path(kConfigFile), config.encoded());
  engine_.reloadConfigFromDisk(true);
}

json CommandCenter::mode(const json& args) {
  auto m = textArg(args, "mode");
  if (!m || (*m != "off" && *m != "auto" && *m != "when_busy" && *m != "always")) {
    return fail("mode must be off, when_busy (auto) or always");
  }
  if (*m == "off") {
    engine_.setMode(Mode::Off);
  } else if (*m == "auto" || *m == "when_busy") {
    engine_.setMode(Mode::Auto);
  } else if (auto minutes = numberArg(args, "minutes", kMaxMinutes)) {
    if (*minutes <= 0) return fail("minutes must be more than 0");
    engine_.stayAwakeUntil(engine_.now() + *minutes * 60.0);
  } else if (auto hour = numberArg(args, "until_hour", 23)) {
    if (*hour < 0) return fail("until_hour must be an hour from 0 to 23");
    engine_.stayAwakeUntil(nextLocalTime(engine_.now(), static_cast<int>(*hour), 0));
  } else {
    engine_.stayAwakeFor(std::nullopt);
  }
  return ok({{"mode", modeText(engine_.config().mode)}, {"always_until", timeOrNull(engine_.onUntil())}});
}

json CommandCenter::hold(const json& args) {
  std::string reason = textArg(args, "reason").value_or("");
  if (reason.empty()) reason = "Asked to stay awake";
  const bool cut = reason.size() > kMaxReason;
  if (cut) reason = cutUtf8(reason, kMaxReason);
  auto owner = numberArg(args, "owner", kMaxPid);
  auto minutes = numberArg(args, "minutes", kMaxMinutes);
  auto pid = numberArg(args, "pid", kMaxPid);
  if (minutes && *minutes <= 0) return fail("minutes must be more than 0");
  std::optional<std::int32_t> pidValue;
  if (pid) {
    if (*pid < 1 || *pid != std::floor(*pid) || !engine_.platform().processes().info(static_cast<std::int32_t>(*pid))) {
      return fail("pid must be a running process id");
    }
    pidValue = static_cast<std::int32_t>(*pid);
  }
  std::optional<std::int32_t> ownerValue;
  if (owner && *owner >= 1) ownerValue = static_cast<std::int32_t>(*owner);
  Hold h = engine_.addHold(reason, minutes, pidValue, ownerValue);
  json fields = {{"hold", holdDictionary(h)}};
  if (cut) fields["note"] = "The reason was cut to " + std::to_string(kMaxReason) + " bytes.";
  return ok(fields);
}

json CommandCenter::release(const json& args) {
  auto id = textArg(args, "id");
  auto all = truthArg(args, "all");
  json released = json::array();
  if (id && !id->empty()) {
    if (engine_.releaseHold(*id) == 0) return fail("no hold " + *id);
    released.push_back(*id);
  } else if (all && *all) {
    for (const Hold& h : engine_.holds()) released.push_back(h.id);
    engine_.releaseHold(std::nullopt);
  } else {
    return fail("id: the hold to end (see vigilo status), or all: true");
  }
  return ok({{"released", released}});
}

json CommandCenter::releaseOwn(const json& args) {
  auto id = textArg(args, "id");
  auto pid = numberArg(args, "pid", kMaxPid);
  if (!id || id->empty() || !pid) return fail("needs id and pid");
  if (*pid < 1 || *pid != std::floor(*pid)) return fail("pid must be a process id");
  if (engine_.releaseHolds(static_cast<std::int32_t>(*pid), *id) == 0) {
    return fail("no hold " + *id + " made by this session");
  }
  return ok({{"released", json::array({*id})}});
}

json CommandCenter::releasePid(const json& args) {
  auto pid = numberArg(args, "pid", kMaxPid);
  if (!pid) return fail("needs pid");
  if (*pid < 1 || *pid != std::floor(*pid)) return fail("pid must be a process id");
  const auto owner = static_cast<std::int32_t>(*pid);
  json released = json::array();
  for (const Hold& h : engine_.holds()) {
    if (h.owner == owner) released.push_back(h.id);
  }
  engine_.releaseHolds(owner, std::nullopt);
  return ok({{"released", released}});
}

json CommandCenter::preset(const json& args) {
  auto text = textArg(args, "preset");
  auto p = text ? parsePreset(*text) : std::nullopt;
  if (!p) return fail("preset must be max_battery, balanced or full_speed");
  Config c = engine_.config();
  c.preset = *p;
  saveFromOutside(c);
  return ok({{"preset", std::string(toText(engine_.config().preset))}});
}

json CommandCenter::rule(const json& args) {
  auto app = textArg(args, "app");
  auto text = textArg(args, "rule");
  if (text && *text == "reset") text = "default";
  std::optional<AppRule> wanted = text ? parseAppRule(*text) : std::nullopt;
  if (!text || (!wanted && *text != "default")) return fail("rule must be leave, slow, pause or default");
  if (!app || app->empty()) return fail("needs app");
  auto found = findApp(engine_.platform(), *app);
  if (!found) return fail("Couldn't find an app called " + *app);
  if (!found->bundleId) return fail(found->name + " has no bundle id");
  Config c = engine_.config();
  if (wanted) {
    c.appRules[*found->bundleId] = *wanted;
  } else {
    c.appRules.erase(*found->bundleId);
  }
  saveFromOutside(c);
  const Config& now = engine_.config();
  const bool own = now.appRules.count(*found->bundleId) > 0;
  std::string inForce(toText(ruleFor(found->bundleId, now.preset, now.appRules)));
  if (!own) inForce += " (preset default)";
  return ok({{"app", found->name}, {"bundle_id", *found->bundleId}, {"rule", inForce}});
}

json CommandCenter::watch(const json& args) {
  auto app = textArg(args, "app");
  if (!app || app->empty()) return fail("needs app");
  const bool remove = truthArg(args, "remove").value_or(false);
  Config c = engine_.config();
  auto it = std::find_if(c.watchedApps.begin(), c.watchedApps.end(), [&](const WatchedApp& w) { return w.name == *app; });
  if (remove) {
    if (it == c.watchedApps.end()) return fail(*app + " isn't on the list");
    c.watchedApps.erase(it);
  } else if (it == c.watchedApps.end()) {
    c.watchedApps.push_back({*app});
  }
  saveFromOutside(c);
  json list = json::array();
  for (const auto& w : engine_.config().watchedApps) list.push_back(w.name);
  return ok({{remove ? "removed" : "added", *app}, {"watch_list", list}});
}

json CommandCenter::agent(const json& args) {
  auto name = textArg(args, "name");
  Config c = engine_.config();
  auto byName = [&](const CustomAgent& a) { return name && a.name == *name; };
  if (truthArg(args, "remove").value_or(false)) {
    if (!name || name->empty()) return fail("needs name");
    auto it = std::find_if(c.customAgents.begin(), c.customAgents.end(), byName);
    if (it == c.customAgents.end()) return fail(*name + " isn't on the list");
    c.customAgents.erase(it);
  } else {
    auto executable = textArg(args, "executable");
    if (!name || name->empty() || !executable || executable->empty()) return fail("needs name and executable");
    if (!findExecutable(*executable)) return fail("Couldn't find " + *executable);
    const std::string exeName = std::filesystem::path(*executable).filename().string();
    auto it = std::find_if(c.customAgents.begin(), c.customAgents.end(), byName);
    if (it == c.customAgents.end()) {
      c.customAgents.push_back({*name, {exeName}, 0.05});
      it = c.customAgents.end() - 1;
    } else if (std::find(it->executables.begin(), it->executables.end(), exeName) == it->executables.end()) {
      it->executables.push_back(exeName);
    }
    if (auto watts = numberArg(args, "idle_watts", 1000); watts && *watts >= 0) it->idleWatts = *watts;
  }
  saveFromOutside(c);
  json agents = json::array();
  for (const auto& a : engine_.config().customAgents) {
    agents.push_back({{"name", a.name}, {"executables", a.executables}, {"idle_watts", a.idleWatts}});
  }
  return ok({{"agent", name.value_or("")}, {"custom_agents", agents}});
}

json CommandCenter::set(const json& args) {
  auto key = textArg(args, "key");
  if (!key || key->empty()) return fail("needs key");
  std::optional<json> value;
  if (auto it = args.find("value"); it != args.end() && !it->is_null()) value = *it;
  // The panel's own controls, after the person confirmed, may loosen.
  const bool inApp = inApp_ && inApp_(args);
  InAppChange asked =
      inApp ? changeInApp(engine_.config(), *key, value) : InAppChange{SettingsSchema::change(engine_.config(), *key, value)};
  SettingsSchema::Change& change = asked.change;
  if (!change.ok) return fail(change.error);
  // Going below the limit is the engine's state, not a setting; from here
  // it can only be ended.
  if (change.endBelowFloor) engine_.overrideFloor(false);
  if (asked.allowBelowFloor) {
    engine_.overrideFloor(true);
    return ok({{"key", "below_floor_allowed"}, {"value", true}});
  }
  if (inApp) {
    engine_.apply(change.config, true);
  } else {
    saveFromOutside(change.config);
  }
  // The setting's own name, whatever spelling was asked for.
  if (const SettingSpec* spec = SettingsSchema::spec(*key)) {
    json fields = {{"key", spec->key}, {"value", spec->read(engine_.config())}};
    // Stored all the same: the settings file may be shared with a machine
    // that has it.
    const MachineWords& words = engine_.platform().words();
    if (const std::string* why = words.lacks(spec->key)) {
      fields["note"] = spec->key + " is saved, but this " + words.machine + " can't honour it: " + *why;
    }
    return ok(fields);
  }
  return ok({{"key", *key}});
}

json CommandCenter::overrideFloor(const json& args) {
  if (truthArg(args, "on").value_or(false) && inApp_ && inApp_(args)) {
    engine_.overrideFloor(true);
    return ok();
  }
  if (truthArg(args, "on").value_or(false)) return fail("Going below the battery limit can only be allowed in Vigilo itself");
  engine_.overrideFloor(false);
  return ok();
}

}  // namespace vigilo
