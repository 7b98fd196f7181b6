#include "integrations/auto_approve.h"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <tuple>

#include "agents/agent_work.h"
#include "agents/careful_file.h"
#include "engine/engine.h"
#include "agents/work_detection.h"
#include "integrations/toml_top.h"
#include "platform/files.h"
#include "platform/sha256.h"

namespace vigilo {
namespace {

using ordered_json = nlohmann::ordered_json;

constexpr const char* kBypass = "bypassPermissions";
constexpr const char* kSkip = "skipDangerousModePermissionPrompt";
constexpr const char* kApproval = "approval_policy";
constexpr const char* kSandbox = "sandbox_mode";
constexpr const char* kNever = "never";
constexpr const char* kFullAccess = "danger-full-access";
constexpr double kDay = 86'400;
constexpr double kDefaultHours = 8;
constexpr const char* kOnMessage = "On. New Claude Code and Codex sessions won't ask.";
constexpr const char* kOffMessage = "Off. Your previous Claude Code and Codex settings are back.";
constexpr const char* kStillOn = " Approve everything may still be on; Vigilo keeps trying.";

std::string endsText(AutoApprove::Ends e) {
  switch (e) {
    case AutoApprove::Ends::Work: return "work";
    case AutoApprove::Ends::Time: return "time";
    case AutoApprove::Ends::Manual: return "manual";
  }
  return "manual";
}

bool flag(const ordered_json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_boolean() && it->get<bool>();
}

std::optional<double> number(const ordered_json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_number()) return std::nullopt;
  return it->get<double>();
}

std::string text(const ordered_json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// permissions.defaultMode, when there is one.
const ordered_json* defaultMode(const ordered_json& settings) {
  auto perms = settings.find("permissions");
  if (perms == settings.end() || !perms->is_object()) return nullptr;
  auto mode = perms->find("defaultMode");
  return mode == perms->end() ? nullptr : &*mode;
}

bool claudeIsOn(const ordered_json& settings) {
  const ordered_json* mode = defaultMode(settings);
  auto skip = settings.find(kSkip);
  return mode && *mode == kBypass && skip != settings.end() && *skip == true;
}

std::string parentOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

// Where the content of `path` lives, so that the watchdog's move over it
// keeps a link the person made.
std::string resolved(const std::string& path) {
  std::error_code ec;
  auto p = std::filesystem::canonical(path, ec);
  return ec ? path : p.string();
}

}  // namespace

bool approveEditInForce(const std::string& base) {
  // Each ".target" is written after its restore copy and before the edit.
  const auto targetText = readWholeFile(base + ".target", 64 * 1024);
  if (!targetText) return false;
  std::string target = *targetText;
  while (!target.empty() && (target.back() == '\n' || target.back() == '\r')) target.pop_back();
  std::error_code ec;
  if (target.empty() || !std::filesystem::exists(std::filesystem::symlink_status(target, ec))) return false;
  const auto current = readWholeFile(target);
  const auto restored = readWholeFile(base + ".restored");
  // Unreadable either way: it can't be told to be back, so it counts.
  return !current || !restored || sha256Hex(*current) != sha256Hex(*restored);
}

AutoApprove::AutoApprove(std::string appFolder, AgentPlaces places, const Clock& clock)
    : files_(std::move(appFolder)), places_(std::move(places)), clock_(clock) {}

bool AutoApprove::isOn() const { return files_.exists(kAutoApproveFile); }

std::optional<ordered_json> AutoApprove::journal(bool* damaged) const {
  if (damaged) *damaged = false;
  auto bytes = files_.read(kAutoApproveFile);
  if (!bytes) {
    if (damaged) *damaged = isOn();
    return std::nullopt;
  }
  auto j = parseJsonObject(*bytes);
  if (!j || !j->contains("ends")) {
    if (damaged) *damaged = true;
    return std::nullopt;
  }
  return j;
}

bool AutoApprove::saveJournal(const ordered_json& j) const {
  // The record keeps the person's own lines to put back byte for byte; a
  // line that isn't UTF-8 can't be written as JSON, and then nothing is
  // changed.
  std::string text;
  try {
    text = j.dump(2) + "\n";
  } catch (const nlohmann::json::exception&) {
    return false;
  }
  return files_.ensureDir() && files_.writeDurably(kAutoApproveFile, text);
}

bool AutoApprove::writeRestore(const std::string& name, const std::string& target, const std::string& restored,
                               const std::string& left) const {
  const std::string folder = files_.path(kApproveRestoreFolder);
  if (!makePrivateFolder(folder)) return false;
  // The target goes last: the watchdog acts on a name only once its
  // ".target" is there, and then finds the other two whole.
  return writeFileDurably(folder + "/" + name + ".restored", restored) &&
         writeFileDurably(folder + "/" + name + ".sha", sha256Hex(left) + "\n") &&
         writeFileDurably(folder + "/" + name + ".target", target + "\n");
}

void AutoApprove::removeRestore(const std::string& name) const {
  const std::string folder = files_.path(kApproveRestoreFolder);
  std::error_code ec;
  for (const char* ext : {".target", ".sha", ".restored"}) std::filesystem::remove(folder + "/" + name + ext, ec);
}

std::string AutoApprove::codexOn(const std::string& text) {
  std::string out = text;
  if (TOMLTop::value(out, kApproval) != kNever) {
    out = TOMLTop::set(out, kApproval, std::string(kApproval) + " = " + TOMLTop::quote(kNever));
  }
  if (TOMLTop::value(out, kSandbox) != kFullAccess) {
    out = TOMLTop::set(out, kSandbox, std::string(kSandbox) + " = " + TOMLTop::quote(kFullAccess));
  }
  return out;
}

ordered_json AutoApprove::claudeOn(ordered_json settings) {
  ordered_json& perms = settings["permissions"];
  if (perms.is_null()) perms = ordered_json::object();
  if (!perms.is_object()) throw std::runtime_error("\"permissions\" isn't an object");
  perms["defaultMode"] = kBypass;
  settings[kSkip] = true;
  return settings;
}

std::string AutoApprove::fail(ordered_json j, const std::string& message, bool* ok) {
  if (ok) *ok = false;
  j["problem"] = message;
  saveJournal(j);
  return message + kStillOn;
}

// What turning on changes: the two files as read, and what each will hold.
struct AutoApprove::Edit {
  std::string claudePath, codexPath, claudeShown, codexShown;
  std::optional<CarefulFile> claude, codex;
  ordered_json settings;  // Claude Code's, as read
  // An agent whose folder isn't there isn't used here: no settings are
  // made up for it.
  bool claudeHere = false, codexHere = false;
  bool claudeTouched = false, codexTouched = false;
  std::string claudeBytes, codexText;  // what the files will hold
};

std::string AutoApprove::turnOn(Ends ends, std::optional<double> hours, bool* ok) {
  if (ok) *ok = false;
  const Time now = clock_.now();
  const double h = hours && std::isfinite(*hours) && *hours > 0 ? *hours : kDefaultHours;
  std::optional<double> endsAt;
  if (ends == Ends::Time) endsAt = now + h * 3600;
  if (ends == Ends::Work) endsAt = now + kDay;
  if (isOn()) return changeEnds(ends, endsAt, ok);

  if (places_.home.empty() || places_.home[0] != '/') {
    return "Vigilo can't tell your home folder (HOME isn't set), so nothing was changed.";
  }
  Edit edit;
  if (auto problem = planEdit(edit)) return *problem;

  ordered_json j = ordered_json::object();
  if (const ordered_json* mode = defaultMode(edit.settings)) j["claudeMode"] = *mode;
  if (auto skip = edit.settings.find(kSkip); skip != edit.settings.end()) j["claudeSkip"] = *skip;
  j["claudeTouched"] = edit.claudeTouched;
  if (auto line = TOMLTop::line(edit.codex->bytes(), kApproval)) j["codexApproval"] = *line;
  if (auto line = TOMLTop::line(edit.codex->bytes(), kSandbox)) j["codexSandbox"] = *line;
  j["codexTouched"] = edit.codexTouched;
  j["ends"] = endsText(ends);
  if (endsAt) j["endsAt"] = *endsAt;
  j["sawWork"] = false;
  j["since"] = now;

  if (!saveJournal(j)) return abandon("Couldn't save Vigilo's record of your settings, so nothing was changed.");
  // What the watchdog needs is in place before the files change, so a crash
  // at any later point leaves it able to put them back.
  if ((edit.claudeTouched && !writeRestore("claude", resolved(edit.claudePath),
                                           edit.claude->existed() ? edit.claude->bytes() : "{}\n", edit.claudeBytes)) ||
      (edit.codexTouched && !writeRestore("codex", resolved(edit.codexPath), edit.codex->bytes(), edit.codexText))) {
    return abandon("Couldn't save Vigilo's record of your settings, so nothing was changed.");
  }
  if (auto problem = applyEdit(edit, j)) return *problem;

  if (!editStuck(edit)) {
    bool off = false;
    const std::string undo = turnOff(&off);
    const std::string message = "The settings didn't stick (another app may have rewritten them), so it was turned off again.";
    return off ? message : message + " " + undo;
  }
  if (ok) *ok = true;
  return kOnMessage;
}

std::string AutoApprove::changeEnds(Ends ends, std::optional<double> endsAt, bool* ok) {
  // Already on: only how it ends changes.
  bool damaged = false;
  auto j = journal(&damaged);
  if (!j) return "Vigilo's record of Approve everything is damaged; turn it off first.";
  (*j)["ends"] = endsText(ends);
  if (endsAt) {
    (*j)["endsAt"] = *endsAt;
  } else {
    j->erase("endsAt");
  }
  if (!saveJournal(*j)) return "Couldn't save Vigilo's record of your settings, so nothing was changed.";
  if (ok) *ok = true;
  return kOnMessage;
}

std::optional<std::string> AutoApprove::planEdit(Edit& e) const {
  e.claudePath = places_.claudeSettings();
  e.codexPath = places_.codexConfig();
  e.claudeShown = places_.shown(e.claudePath);
  e.codexShown = places_.shown(e.codexPath);

  e.claude = CarefulFile::read(e.claudePath);
  std::optional<ordered_json> settings = e.claude ? parseJsonObject(e.claude->bytes()) : std::nullopt;
  if (!settings) return "Couldn't read " + e.claudeShown + " (it isn't plain JSON), so nothing was changed.";
  e.settings = std::move(*settings);
  e.codex = CarefulFile::read(e.codexPath);
  if (!e.codex) return "Couldn't read " + e.codexShown + ", so nothing was changed.";
  if (auto problem = TOMLTop::check(e.codex->bytes(), {kApproval, kSandbox})) {
    if (problem->twice) return e.codexShown + " sets " + problem->key + " twice, so Vigilo left it alone.";
    return "Couldn't edit " + problem->key + " in " + e.codexShown + " safely, so it was left alone.";
  }

  ordered_json newSettings;
  try {
    newSettings = claudeOn(e.settings);
  } catch (const std::exception& ex) {
    return "Couldn't change " + e.claudeShown + " (" + ex.what() + "), so nothing was changed.";
  }
  e.claudeHere = e.claude->existed() || isFolder(parentOf(e.claudePath));
  e.codexHere = e.codex->existed() || isFolder(parentOf(e.codexPath));
  if (!e.claudeHere && !e.codexHere) {
    return "Neither Claude Code nor Codex is set up here (no " + parentOf(e.claudeShown) + " or " +
           parentOf(e.codexShown) + " folder), so nothing was changed.";
  }
  e.claudeTouched = e.claudeHere && newSettings != e.settings;
  e.claudeBytes = jsonEdited(e.claude->bytes(), newSettings);
  e.codexText = codexOn(e.codex->bytes());
  e.codexTouched = e.codexHere && e.codexText != e.codex->bytes();
  return std::nullopt;
}

std::string AutoApprove::abandon(const std::string& message) const {
  files_.remove(kAutoApproveFile);
  std::error_code ec;
  std::filesystem::remove_all(files_.path(kApproveRestoreFolder), ec);
  return message;
}

std::optional<std::string> AutoApprove::applyEdit(Edit& e, ordered_json& j) {
  if (e.claudeTouched) {
    e.claude->backUp();
    const auto written = e.claude->replace(e.claudeBytes, beforeWrite);
    if (written.outcome == CarefulFile::Outcome::Changed) {
      return abandon(e.claudeShown + " changed while Vigilo was editing it; try again.");
    }
    if (written.outcome == CarefulFile::Outcome::Failed) {
      return abandon("Couldn't write " + e.claudeShown + " (" + written.message + "), so nothing was changed.");
    }
  }
  // Codex's target appears only now that the Claude file is written, for a
  // resolved path of a file that was missing until this moment.
  if (e.codexTouched) {
    e.codex->backUp();
    const auto written = e.codex->replace(e.codexText, beforeWrite);
    if (written.outcome != CarefulFile::Outcome::Written) {
      const std::string message = written.outcome == CarefulFile::Outcome::Changed
                                      ? e.codexShown + " changed while Vigilo was editing it; try again."
                                      : "Couldn't write " + e.codexShown + " (" + written.message + ").";
      j["codexTouched"] = false;
      removeRestore("codex");
      saveJournal(j);
      bool off = false;
      const std::string undo = turnOff(&off);
      return off ? message : message + " " + undo;
    }
  }
  return std::nullopt;
}

bool AutoApprove::editStuck(const Edit& e) {
  // Read back: another program may rewrite its settings at once.
  auto claudeNow = CarefulFile::read(e.claudePath);
  auto claudeParsed = claudeNow ? parseJsonObject(claudeNow->bytes()) : std::nullopt;
  auto codexNow = CarefulFile::read(e.codexPath);
  return (!e.claudeHere || (claudeParsed && claudeIsOn(*claudeParsed))) &&
         (!e.codexHere || (codexNow && TOMLTop::value(codexNow->bytes(), kApproval) == kNever &&
                           TOMLTop::value(codexNow->bytes(), kSandbox) == kFullAccess));
}

std::string AutoApprove::turnOff(bool* ok) {
  if (ok) *ok = false;
  bool damaged = false;
  auto j = journal(&damaged);
  if (!j) {
    if (!damaged) {
      if (ok) *ok = true;
      return kOffMessage;
    }
    return "Vigilo's record of what Approve everything changed (" + files_.path(kAutoApproveFile) +
           ") is damaged, so it can't tell what to put back; check " + places_.shown(places_.claudeSettings()) +
           " and " + places_.shown(places_.codexConfig()) + " by hand, then delete the record." + kStillOn;
  }

  // Each agent is put back on its own: one that fails keeps its flag (and
  // its restore files) for the next try, and never keeps the other
  // unrestricted.
  std::string problems;
  for (const auto& [name, touched, putBack] :
       {std::tuple{"claude", "claudeTouched", &AutoApprove::putBackClaude},
        std::tuple{"codex", "codexTouched", &AutoApprove::putBackCodex}}) {
    if (!flag(*j, touched)) continue;
    if (auto problem = (this->*putBack)(*j)) {
      problems += (problems.empty() ? "" : " ") + *problem;
      continue;
    }
    (*j)[touched] = false;
    removeRestore(name);
    saveJournal(*j);
  }
  if (!problems.empty()) return fail(*j, problems, ok);

  std::error_code ec;
  std::filesystem::remove_all(files_.path(kApproveRestoreFolder), ec);
  if (ec || !files_.remove(kAutoApproveFile)) {
    return fail(*j, "Put your settings back, but couldn't remove Vigilo's record of them. It will try again.", ok);
  }
  if (ok) *ok = true;
  return kOffMessage;
}

std::optional<std::string> AutoApprove::putBackClaude(const ordered_json& j) const {
  const std::string claudePath = places_.claudeSettings();
  const std::string claudeShown = places_.shown(claudePath);
  auto file = CarefulFile::read(claudePath);
  auto settings = file ? parseJsonObject(file->bytes()) : std::nullopt;
  if (!settings) return "Couldn't read " + claudeShown + " to put it back (it isn't plain JSON or can't be opened).";
  if (!file->existed()) return std::nullopt;
  // Only Vigilo's own values go back; whatever the person changed since,
  // these two keys included, stays as they have it now. A "permissions"
  // object the file had before stays, even empty.
  const auto restored = readWholeFile(files_.path(kApproveRestoreFolder) + "/claude.restored");
  const auto original = restored ? parseJsonObject(*restored) : std::nullopt;
  const bool hadPermissions = original && original->contains("permissions");
  ordered_json back = *settings;
  const ordered_json* mode = defaultMode(back);
  if (mode && *mode == kBypass) {
    ordered_json& perms = back["permissions"];
    if (j.contains("claudeMode")) {
      perms["defaultMode"] = j.at("claudeMode");
    } else {
      perms.erase("defaultMode");
      if (perms.empty() && !hadPermissions) back.erase("permissions");
    }
  }
  if (auto skip = back.find(kSkip); skip != back.end() && *skip == true) {
    if (j.contains("claudeSkip")) {
      back[kSkip] = j.at("claudeSkip");
    } else {
      back.erase(kSkip);
    }
  }
  if (back == *settings) return std::nullopt;
  const auto written = file->replace(jsonEdited(file->bytes(), back), beforeWrite);
  if (written.outcome == CarefulFile::Outcome::Changed) {
    return claudeShown + " changed while Vigilo was editing it; try again.";
  }
  if (written.outcome == CarefulFile::Outcome::Failed) {
    return "Couldn't write " + claudeShown + " (" + written.message + ").";
  }
  auto again = CarefulFile::read(claudePath);
  auto check = again ? parseJsonObject(again->bytes()) : std::nullopt;
  const ordered_json* nowMode = check ? defaultMode(*check) : nullptr;
  if (!check || (nowMode && *nowMode == kBypass && j.value("claudeMode", ordered_json()) != kBypass)) {
    return claudeShown + " still says bypassPermissions.";
  }
  return std::nullopt;
}

std::optional<std::string> AutoApprove::putBackCodex(const ordered_json& j) const {
  const std::string codexPath = places_.codexConfig();
  const std::string codexShown = places_.shown(codexPath);
  auto file = CarefulFile::read(codexPath);
  if (!file) return "Couldn't read " + codexShown + " to put it back.";
  std::string back = file->bytes();
  auto recorded = [&](const char* key) -> std::optional<std::string> {
    const std::string line = text(j, key);
    if (line.empty()) return std::nullopt;
    return line;
  };
  if (TOMLTop::value(back, kApproval) == kNever) back = TOMLTop::set(back, kApproval, recorded("codexApproval"));
  if (TOMLTop::value(back, kSandbox) == kFullAccess) back = TOMLTop::set(back, kSandbox, recorded("codexSandbox"));
  if (!file->existed() || back == file->bytes()) return std::nullopt;
  const auto written = file->replace(back, beforeWrite);
  if (written.outcome == CarefulFile::Outcome::Changed) {
    return codexShown + " changed while Vigilo was editing it; try again.";
  }
  if (written.outcome == CarefulFile::Outcome::Failed) {
    return "Couldn't write " + codexShown + " (" + written.message + ").";
  }
  auto again = readWholeFile(codexPath);
  if (!again) return "Couldn't read " + codexShown + " back to check it.";
  const auto before = recorded("codexApproval");
  const bool wasNever = before && TOMLTop::value(*before, kApproval) == kNever;
  if (TOMLTop::value(*again, kApproval) == kNever && !wasNever) return codexShown + " still says never ask.";
  return std::nullopt;
}

std::optional<std::string> AutoApprove::dropUnapplied() const {
  auto j = journal();
  if (!j) return std::nullopt;
  const bool claude = flag(*j, "claudeTouched");
  const bool codex = flag(*j, "codexTouched");
  // Nothing to change is a state of its own: on, with nothing to put back.
  if (!claude && !codex) return std::nullopt;
  const std::string folder = files_.path(kApproveRestoreFolder);
  for (const char* name : {"claude", "codex"}) {
    if (!(name == std::string("claude") ? claude : codex)) continue;
    if (approveEditInForce(folder + "/" + name)) return std::nullopt;
  }
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
  if (ec || !files_.remove(kAutoApproveFile)) return std::nullopt;
  return "Approve everything is off: Vigilo stopped before its change to the agents' settings took effect, so its "
         "record was removed.";
}

void AutoApprove::markWork() {
  auto j = journal();
  if (!j || flag(*j, "sawWork")) return;
  (*j)["sawWork"] = true;
  saveJournal(*j);
}

std::optional<std::string> AutoApprove::expiry(bool holdingForWork, Time now) const {
  bool damaged = false;
  auto j = journal(&damaged);
  if (!j) return std::nullopt;
  if (j->contains("problem")) return std::string("retry");
  const std::string ends = text(*j, "ends");
  if (auto endsAt = number(*j, "endsAt"); endsAt && now >= *endsAt) {
    if (ends == "time") return std::string("Its time was up");
    if (ends == "work") return std::string("No work started for a day");
  }
  if (ends == "work" && flag(*j, "sawWork") && !holdingForWork) return std::string("The work finished");
  return std::nullopt;
}

std::optional<std::string> AutoApprove::ends() const {
  auto j = journal();
  if (!j) return std::nullopt;
  return text(*j, "ends");
}

AutoApprove::Status AutoApprove::status() const {
  Status s;
  s.on = isOn();
  if (!s.on) return s;
  bool damaged = false;
  auto j = journal(&damaged);
  if (!j) {
    s.problem = "Its record is damaged";
    return s;
  }
  if (j->contains("problem")) s.problem = "Couldn't put your settings back yet";
  const std::string ends = text(*j, "ends");
  if (ends == "work") {
    s.endsLine = flag(*j, "sawWork") ? "Turns off when the work finishes" : "Turns off when the next work finishes";
  } else if (ends == "time") {
    auto at = number(*j, "endsAt");
    s.endsLine = at ? "Turns off at " + formatShortTime(*at) : "Stays on until you turn it off";
  } else {
    s.endsLine = "Stays on until you turn it off";
  }
  return s;
}

ApproveJobs::ApproveJobs(AutoApprove& approve, const AgentWork* work, std::function<void(const std::string&)> tell)
    : approve_(approve), work_(work), tell_(std::move(tell)) {}

bool ApproveJobs::agentWorking(Engine& engine) const {
  if (!work_) return false;
  const Time now = engine.now();
  for (const AgentSession& s : work_->sessions()) {
    if (s.id.rfind("request:", 0) != 0 && WorkDetection::busy(s, now)) return true;
  }
  return false;
}

bool ApproveJobs::agentRunning() const {
  if (!work_) return false;
  for (const AgentSession& s : work_->sessions()) {
    if (s.kind.id == "claude-code" || s.kind.id == "codex") return true;
  }
  return false;
}

void ApproveJobs::checkApprove(Engine& engine) {
  if (engine.preview() || !approve_.isOn()) return;
  // Held for work: an agent works now, or the engine holds for work in
  // mode "auto" without an explicit hold (the quiet minutes after it).
  const bool holdingForWork = agentWorking(engine) ||
                              (engine.holding() && engine.config().mode == Mode::Auto && engine.holds().empty());
  if (holdingForWork) approve_.markWork();
  auto why = approve_.expiry(holdingForWork, engine.now());
  if (!why) return;
  bool ok = false;
  const std::string message = approve_.turnOff(&ok);
  if (ok) {
    lastProblem_.clear();
    if (tell_) tell_("Approve everything is off" + (*why == "retry" ? std::string() : ": " + *why) + ". " + message);
  } else if (message != lastProblem_) {
    lastProblem_ = message;
    if (tell_) tell_(message);
  }
}

void ApproveJobs::endApproveIfUnwatched(Engine& engine) {
  if (engine.preview() || !approve_.isOn()) return;
  // "Until the work finishes" needs the app to see the work finish; other
  // ends stay while an agent they concern still runs.
  if (approve_.ends() != std::optional<std::string>("work") && agentRunning()) return;
  bool ok = false;
  const std::string message = approve_.turnOff(&ok);
  if (tell_) tell_(ok ? "Approve everything is off: Vigilo quit. " + message : message);
}

}  // namespace vigilo
