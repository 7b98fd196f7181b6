#include "safety/watchdog.h"

#include <filesystem>

#include <nlohmann/json.hpp>

#include "engine/log.h"
#include "integrations/auto_approve.h"
#include "platform/files.h"
#include "platform/sha256.h"

namespace vigilo {
namespace fs = std::filesystem;
namespace {

constexpr const char* kWatchdogDown = "The safety watchdog isn't running, so a crash wouldn't be cleaned up automatically. ";


std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
  return text;
}

}  // namespace

void Watchdog::refreshWatchdog(Engine& engine) {
  if (engine.preview()) return;
  if (Result r = setup_.refreshWatchdogScript(); !r) logLine("Vigilo: couldn't rewrite the watchdog script: " + r.message());
}

void Watchdog::checkWatchdog(Engine& engine) {
  if (engine.preview()) return;
  if (setup_.watchdogReady()) {
    warning_.reset();
    return;
  }
  // One repair per run, and only of a watchdog set up for this folder: the
  // person's consent to set it up is theirs to give.
  if (!watchdogRepairTried_ && setup_.watchdogIsThisFolders()) {
    watchdogRepairTried_ = true;
    Result r = setup_.installWatchdog();
    if (!r) logLine("Vigilo: " + r.message());
    if (r && setup_.watchdogReady()) {
      warning_.reset();
      return;
    }
  }
  warning_ = kWatchdogDown + setup_.repairHint();
}

std::vector<std::string> Watchdog::systemChanges(const Engine& engine) {
  std::vector<std::string> out = engine.outstandingChanges();
  if (engine.files().exists(kApproveRecordFile)) out.emplace_back(kApproveRecordFile);
  return out;
}

std::vector<std::string> restoreApproveFiles(const StateFiles& files) {
  std::vector<std::string> left;
  const std::string folder = files.path(kApproveShellFolder);
  std::error_code ec;
  if (!files.exists(kApproveRecordFile)) return left;
  if (!fs::is_directory(folder, ec)) {
    // The restore copies come before any edit: a record that names a change
    // but has none was stopped before it made one.
    const auto record = files.read(kApproveRecordFile, 1024 * 1024);
    const auto j = record ? nlohmann::json::parse(*record, nullptr, false) : nlohmann::json();
    const auto touched = [&j](const char* key) {
      auto it = j.is_object() ? j.find(key) : j.end();
      return it != j.end() && *it == true;
    };
    if (touched("claudeTouched") || touched("codexTouched")) files.remove(kApproveRecordFile);
    return left;
  }
  for (const char* name : {"claude", "codex"}) {
    const std::string base = folder + "/" + name;
    auto targetText = readWholeFile(base + ".target", 64 * 1024);
    if (!targetText || !approveEditInForce(base)) {
      // Never edited, or already as it was.
      for (const char* ext : {".target", ".sha", ".restored"}) fs::remove(base + ext, ec);
      continue;
    }
    const std::string target = trimmed(*targetText);
    auto current = readWholeFile(target);
    auto stored = readWholeFile(base + ".sha", 1024);
    auto restored = readWholeFile(base + ".restored");
    std::optional<std::string> sum;
    if (current) sum = sha256Hex(*current);
    if (!sum || !stored || !restored || *sum != trimmed(*stored)) {
      left.push_back(std::string(name == std::string("claude") ? "Claude Code" : "Codex") + "'s settings " + target +
                     " changed since Vigilo edited them; Vigilo puts them back when it runs again");
      continue;
    }
    auto mode = fs::status(target, ec).permissions();
    Result wrote = writeFileDurably(target, *restored, ec ? std::nullopt : std::optional<mode_t>(static_cast<mode_t>(mode)));
    if (!wrote) {
      left.push_back(target + ": " + wrote.message());
      continue;
    }
    for (const char* ext : {".target", ".sha", ".restored"}) fs::remove(base + ext, ec);
  }
  if (left.empty()) {
    fs::remove_all(folder, ec);
    if (!ec) files.remove(kApproveRecordFile);
  }
  return left;
}

std::vector<std::string> putBackAfterCrash(Engine& engine) {
  std::vector<std::string> failed = engine.rescue();
  for (auto& line : restoreApproveFiles(engine.files())) failed.push_back(std::move(line));
  return failed;
}

}  // namespace vigilo
