#pragma once

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "engine/seams.h"
#include "engine/state_files.h"
#include "integrations/agent_files.h"
#include "platform/clock.h"

namespace vigilo {

class AgentWork;

inline constexpr std::string_view kAutoApproveFile = "auto-approve.json";
inline constexpr std::string_view kApproveRestoreFolder = "approve-restore";

// Whether the agent file that the restore copies at `base` (the folder and
// "claude" or "codex") stand for may still hold Vigilo's edit: false when
// the copy never got its ".target" (written last, before the edit), when the
// file is gone, or when it holds exactly the bytes to put back.
bool approveEditInForce(const std::string& base);

// "Approve everything": Claude Code and Codex run commands, edit files and
// use the network without asking, until it is turned off, a time passes or
// the work finishes; then the person's own settings are put back. Every
// change is recorded in "auto-approve.json" before it is made; a copy of
// what to put back, with the checksum of each file as Vigilo left it, waits
// in "approve-restore" for the watchdog script, which restores a file only
// while it is unchanged since.
class AutoApprove {
 public:
  // How it ends, stored by its text: "work", "time" or "manual".
  enum class Ends { Work, Time, Manual };
  struct Status {
    bool on = false;
    std::string endsLine;
    std::string problem;  // empty when none
  };

  AutoApprove(std::string appFolder, AgentPlaces places, const Clock& clock);

  bool isOn() const;
  // Gives the message for the person: "On. …" on success, else what went
  // wrong (nothing was left changed then). `ok` tells which. `hours` only
  // for Ends::Time (8 when not given).
  std::string turnOn(Ends ends, std::optional<double> hours, bool* ok = nullptr);
  // Puts the settings back: "Off. …", or what went wrong, ending " Approve
  // everything may still be on; Vigilo keeps trying." (the record then stays,
  // with the problem noted). Nothing to do when it is off.
  std::string turnOff(bool* ok = nullptr);
  // Agent work was seen since it was turned on.
  void markWork();
  // A record whose change never took effect: Vigilo stopped after saving it
  // but before editing the agents' files (or after putting them back but
  // before removing it), so every file it names still holds what it held
  // before. Removes the record and its restore copies and gives the sentence
  // that says so; nothing when the record is off, damaged or in force.
  std::optional<std::string> dropUnapplied() const;
  // The reason to end it now, or nothing: "retry", "Its time was up", "No
  // work started for a day" or "The work finished".
  std::optional<std::string> expiry(bool holdingForWork, Time now) const;
  Status status() const;
  // How it ends: "work", "time" or "manual"; nothing when off or damaged.
  std::optional<std::string> ends() const;

  // The bytes Vigilo's Codex text would hold with the two lines set, and the
  // Claude Code object with the two values set (pure, for tests).
  static std::string codexOn(const std::string& text);
  static nlohmann::ordered_json claudeOn(nlohmann::ordered_json settings);

  // Runs between reading a file and writing it (tests change the file there).
  std::function<void()> beforeWrite;

 private:
  std::optional<nlohmann::ordered_json> journal(bool* damaged = nullptr) const;
  bool saveJournal(const nlohmann::ordered_json& j) const;
  std::string fail(nlohmann::ordered_json j, const std::string& message, bool* ok);
  bool writeRestore(const std::string& name, const std::string& target, const std::string& restored,
                    const std::string& left) const;
  void removeRestore(const std::string& name) const;

  // The steps of turnOn: what the files will hold, the edit itself, and
  // whether it stuck.
  struct Edit;
  std::string changeEnds(Ends ends, std::optional<double> endsAt, bool* ok);
  std::optional<std::string> planEdit(Edit& e) const;
  std::optional<std::string> applyEdit(Edit& e, nlohmann::ordered_json& j);
  static bool editStuck(const Edit& e);
  // Removes the record and the restore copies of an edit that never
  // happened, and gives `message`.
  std::string abandon(const std::string& message) const;
  // The steps of turnOff: puts one agent's file back as the record `j`
  // says; what went wrong, or nothing.
  std::optional<std::string> putBackClaude(const nlohmann::ordered_json& j) const;
  std::optional<std::string> putBackCodex(const nlohmann::ordered_json& j) const;

  StateFiles files_;
  AgentPlaces places_;
  const Clock& clock_;
};

// Plugs Approve everything into the engine's slow beat: marks work, ends it
// when its time or work is over, retries a failed put-back, and ends it at
// quit when no agent it concerns is running.
class ApproveJobs final : public SlowJobs {
 public:
  // `work` may be null; `tell` prints what happened.
  ApproveJobs(AutoApprove& approve, const AgentWork* work, std::function<void(const std::string&)> tell);
  void checkApprove(Engine& engine) override;
  void endApproveIfUnwatched(Engine& engine) override;

 private:
  bool agentWorking(Engine& engine) const;
  bool agentRunning() const;

  AutoApprove& approve_;
  const AgentWork* work_;
  std::function<void(const std::string&)> tell_;
  std::string lastProblem_;
};

}  // namespace vigilo
