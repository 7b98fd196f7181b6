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

// The replies that describe the app: "status", "energy" and "power".

namespace vigilo {
namespace {

using json = nlohmann::json;

// Rows of the energy list.
constexpr std::size_t kEnergyRows = 12;

// "battery" of the status: the reading, or null without a battery.
json batteryDictionary(const Engine& e) {
  if (!e.battery()) return nullptr;
  const BatteryReading& b = *e.battery();
  json battery = {{"percent", b.percent}, {"watts", b.watts}, {"on_power", b.onPower()}, {"charging", b.charging}};
  battery["minutes_left"] = b.minutesLeft ? json(*b.minutesLeft) : json(nullptr);
  return battery;
}

json receiptDictionary(const Receipt& r) {
  return {{"closed_at", r.closedAt},
          {"opened_at", timeOrNull(r.openedAt)},
          {"start_percent", r.startPercent ? json(*r.startPercent) : json(nullptr)},
          {"end_percent", r.endPercent ? json(*r.endPercent) : json(nullptr)},
          {"agent", r.agentName ? json(*r.agentName) : json(nullptr)},
          {"offline_seconds", r.offlineSeconds},
          {"line", receiptLine(r)}};
}

// "unrestored", "targeted" and "receipt": what the lid-closed session did.
void addClosedLidKeys(ClosedLid& closedLid, json& reply) {
  json unrestored = json::array();
  json targeted = json::array();
  for (const auto& name : closedLid.unrestored()) unrestored.push_back(name);
  for (const auto& [pid, t] : closedLid.targeted()) {
    targeted.push_back({{"pid", pid},
                        {"name", t.name},
                        {"bundle_id", t.bundleId ? json(*t.bundleId) : json(nullptr)},
                        {"rule", std::string(toText(t.rule))}});
  }
  reply["unrestored"] = unrestored;
  reply["targeted"] = targeted;
  reply["receipt"] = closedLid.receipt() ? receiptDictionary(*closedLid.receipt()) : json(nullptr);
}

// "watching" (one line per agent) and "sessions" (the detail of each).
void addAgentKeys(const AgentWork& work, const Engine& e, json& reply) {
  const Time now = e.now();
  json watching = json::array();
  json sessions = json::array();
  for (const AgentSession& s : work.sessions()) {
    const bool busy = WorkDetection::busy(s, now);
    json pid = s.pids.empty() ? json(nullptr) : json(s.pids.front());
    const auto since = work.detection().workingSince(s);
    watching.push_back({{"name", s.kind.name}, {"kind", s.kind.id}, {"pid", pid}, {"working", busy},
                        {"since", since ? json(*since) : timeOrNull(s.lastActive)},
                        {"project", s.project ? json(*s.project) : json(nullptr)},
                        {"description", WorkDetection::describe(s, now)},
                        {"keeps_awake", !WorkDetection::trackedOnly(s, e.config())}});
    sessions.push_back({{"id", s.id},
                        {"name", s.kind.name},
                        {"state", s.state ? json(std::string(toText(*s.state))) : json(nullptr)},
                        {"state_since", timeOrNull(s.stateSince)},
                        {"last_active", timeOrNull(s.lastActive)},
                        {"working", busy},
                        {"tool_running", s.toolRunning},
                        {"watts", s.watts},
                        {"instances", s.instances},
                        {"project", s.project ? json(*s.project) : json(nullptr)},
                        {"detail", s.detail},
                        {"description", WorkDetection::describe(s, now)}});
  }
  reply["watching"] = watching;
  reply["sessions"] = sessions;
}

}  // namespace

json CommandCenter::holdDictionary(const Hold& h) {
  json d = {{"id", h.id}, {"reason", h.reason}, {"owner", h.owner ? json(*h.owner) : json(nullptr)},
            {"start", h.created}, {"end", timeOrNull(h.until)}};
  d["pid"] = h.pid ? json(*h.pid) : json(nullptr);
  return d;
}

json CommandCenter::statusDictionary() {
  const Engine& e = engine_;
  const Config& c = e.config();
  json holds = json::array();
  for (const Hold& h : e.holds()) holds.push_back(holdDictionary(h));
  json watchList = json::array();
  for (const auto& w : c.watchedApps) watchList.push_back(w.name);
  json rules = json::object();
  for (const auto& [app, rule] : c.appRules) rules[app] = std::string(toText(rule));
  std::optional<std::string> warning = e.warning();
  if (!warning) warning = e.setupError();
  if (!warning && closedLid_) warning = closedLid_->warning();
  json notPutBack = json::array();
  for (const auto& f : e.outstandingChanges()) notPutBack.push_back(f);
  json unavailable = json::array();
  for (const Capability& cap : engine_.capabilities()) {
    if (!cap.available) unavailable.push_back({{"name", cap.name}, {"detail", cap.detail}});
  }
  for (const auto& [name, why] : unavailable_) {
    if (auto detail = why()) unavailable.push_back({{"name", name}, {"detail", *detail}});
  }
  auto watts = e.systemWatts();
  json reply = ok({
      {"mode", modeText(c.mode)},
      {"keeping_awake", e.holding()},
      {"lid_closed", e.lidClosed()},
      {"preset", std::string(toText(c.preset))},
      {"system_watts", watts ? json(*watts) : json(nullptr)},
      {"power_measured", false},
      {"config_path", e.files().path(kConfigFile)},
      {"holds", holds},
      {"watch_list", watchList},
      {"app_rules", rules},
      {"watching", json::array()},
      {"battery", batteryDictionary(e)},
      {"sessions", json::array()},
      {"blocked_by", e.blockedReason() ? json(*e.blockedReason()) : json(nullptr)},
      {"warning", warning ? json(*warning) : json(nullptr)},
      {"reason", e.holding() || e.wantsHold() ? json(e.holdReason()) : json(nullptr)},
      {"setup_done", e.setupReady()},
      {"setup_problem", e.setupReady() ? json(nullptr) : json(e.setupProblem())},
      {"always_until", timeOrNull(e.onUntil())},
      {"menu_bar_title", e.menuBarTitle()},
      {"pending_release", e.pendingRelease()},
      {"not_put_back_yet", notPutBack},
      {"unrestored", json::array()},
      {"targeted", json::array()},
      {"receipt", nullptr},
      {"unavailable", unavailable},
      {"platform", engine_.platform().name()},
  });
  if (closedLid_) addClosedLidKeys(*closedLid_, reply);
  if (work_) addAgentKeys(*work_, e, reply);
  if (power_) {
    auto hours = power_->hoursLeftClosed(e);
    reply["hours_left_closed"] = hours ? json(*hours) : json(nullptr);
    reply["closed_estimate_watts"] = power_->closedEstimate(e);
    reply["apps_using_energy"] = appsUsingEnergy(5);
  }
  if (savings_) {
    const json keys = savings_->statusKeys();
    for (auto& [k, v] : keys.items()) reply[k] = v;
  }
  if (approve_) reply["approve_everything"] = approveDictionary();
  return reply;
}

json CommandCenter::approveDictionary() const {
  const AutoApprove::Status s = approve_->status();
  return {{"on", s.on},
          {"ends", approve_->ends() ? json(*approve_->ends()) : json(nullptr)},
          {"ends_line", s.on ? json(s.endsLine) : json(nullptr)},
          {"problem", s.problem.empty() ? json(nullptr) : json(s.problem)}};
}

// `approve`: `on` (truth); to turn on, `ends` ("work", "time" or "manual")
// and, for "time", `hours`.
json CommandCenter::appsUsingEnergy(std::size_t limit) {
  json apps = json::array();
  if (!power_) return apps;
  for (const AppUsage& a : power_->apps()) {
    if (apps.size() >= limit) break;
    // Sorted largest first: the rest would read "0.00 W".
    if (a.watts < 0.005) break;
    apps.push_back({{"name", a.name},
                    {"bundle_id", a.bundleID ? json(*a.bundleID) : json(nullptr)},
                    {"watts", a.watts},
                    {"cores", a.cores},
                    {"pids", a.pids},
                    {"system", a.system},
                    {"estimated", a.estimated},
                    {"while_closed", power_->whileClosed(engine_, a)}});
  }
  return apps;
}

json CommandCenter::energy() {
  if (!power_) return fail("Vigilo isn't measuring energy in this mode");
  return ok({{"apps", appsUsingEnergy(kEnergyRows)}});
}

json CommandCenter::power() {
  if (!power_) return fail("Vigilo isn't measuring power in this mode");
  const WholeMachinePower& w = power_->whole();
  auto watts = w.systemWatts();
  auto hours = power_->hoursLeftClosed(engine_);
  const LearnedPower& learned = w.learned();
  auto opt = [](const std::optional<double>& v) { return v ? json(*v) : json(nullptr); };
  json reply = ok({{"system_watts", opt(watts)},
                   {"learned_open_watts", opt(learned.openDraw)},
                   {"learned_closed_watts", opt(learned.closedDraw)},
                   {"full_wh", w.fullWh()},
                   {"closed_estimate_watts", power_->closedEstimate(engine_)},
                   {"hours_left_closed", opt(hours)},
                   {"apps", appsUsingEnergy(kEnergyRows)},
                   // A screen plugged in draws from the laptop, and a shut
                   // laptop driving it counts as open.
                   {"external_display", engine_.platform().displays().externalConnected()},
                   // The power test switches the lid-closed savings off
                   // and on; without them there is nothing to measure.
                   {"power_test", "not available"}});
  if (savings_) {
    const json keys = savings_->powerKeys();
    for (auto& [k, v] : keys.items()) reply[k] = v;
  }
  return reply;
}

// `power_test`: `detailed`, `screen` (truths); `stop` (truth) ends a
// running test early.
}  // namespace vigilo
