#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "engine/engine.h"

namespace vigilo {
class AgentWork;
class AutoApprove;
class PowerWatch;
class ClosedLid;
class Savings;
}

namespace vigilo {

// The argument readers every request uses.
// The value when it is a string.
std::optional<std::string> textArg(const nlohmann::json& args, const char* key);
// A JSON number, or a string that is wholly a decimal number; non-finite
// values count as absent, values beyond ±`bound` are cut to it.
std::optional<double> numberArg(const nlohmann::json& args, const char* key, double bound);
// A JSON boolean, or a number as its truth value.
std::optional<bool> truthArg(const nlohmann::json& args, const char* key);

// Runs requests from outside the app against the engine, one at a time on
// the main thread, and answers each well-formed one exactly once.
class CommandCenter {
 public:
  // `quit` is called (after the reply is written) for the `quit` request.
  CommandCenter(Engine& engine, std::function<void()> quit);

  // Takes one request text: drops it silently when it is not a JSON object,
  // lacks `cmd`, or has an `id` that is empty, longer than 64 characters or
  // holds anything but letters, digits and "-", nests deeper than a request
  // can, or whose `deadline` (the caller's) has passed. Otherwise handles
  // it and writes the reply file.
  void receive(const std::string& text);

  // Agent detection and power measurement, when the app runs them.
  void setAgents(const AgentWork* work, const PowerWatch* power) {
    work_ = work;
    power_ = power;
  }

  // "Approve everything", when the app offers it.
  void setApprove(AutoApprove* approve) { approve_ = approve; }
  // A request that another subsystem answers (`wake`, `wake_at`): `fn`
  // gives the whole reply object.
  void addHandler(const std::string& cmd, std::function<nlohmann::json(const nlohmann::json&)> fn) {
    extra_[cmd] = std::move(fn);
  }
  // A request answered later (`snapshot`): `fn` gets the arguments and a
  // function that writes the whole reply, once, on the main thread.
  void addDeferredHandler(const std::string& cmd,
                          std::function<void(const nlohmann::json&, std::function<void(const nlohmann::json&)>)> fn) {
    deferred_[cmd] = std::move(fn);
  }
  // Tells requests from the panel's own confirmed controls (which may loosen
  // safety settings) from every other caller.
  void setInAppCheck(std::function<bool(const nlohmann::json&)> fn) { inApp_ = std::move(fn); }
  // The closed-lid session, when the app runs one.
  void setClosedLid(ClosedLid* closedLid) { closedLid_ = closedLid; }
  // The savings measurement (power test, quick estimate, statistics), when
  // the app runs it.
  void setSavings(Savings* savings) { savings_ = savings; }
  // A feature of the app's own (the hotkey) that the status lists under
  // `unavailable` while `why` gives a sentence.
  void addUnavailable(const std::string& name, std::function<std::optional<std::string>()> why) {
    unavailable_.emplace_back(name, std::move(why));
  }

  // Handles one request and gives the reply object.
  nlohmann::json handle(const std::string& cmd, const nlohmann::json& args);

  // The status dictionary (reply of `status`).
  nlohmann::json statusDictionary();

 private:
  nlohmann::json ok();
  nlohmann::json ok(nlohmann::json fields);
  nlohmann::json fail(const std::string& error);
  // A refusal when a text argument is too long to be meant, else null.
  nlohmann::json tooLong(const nlohmann::json& args);
  nlohmann::json holdDictionary(const Hold& h);
  // The sleep blockers that don't keep the machine awake, for the panel.
  nlohmann::json ignoredSleepBlockers() const;
  // Saves a changed record through the settings file and lets the engine
  // reload it, as an edit by hand would be: safety settings stay as strict.
  void saveFromOutside(const Config& config);

  nlohmann::json mode(const nlohmann::json& args);
  nlohmann::json hold(const nlohmann::json& args);
  nlohmann::json release(const nlohmann::json& args);
  nlohmann::json releaseOwn(const nlohmann::json& args);
  nlohmann::json releasePid(const nlohmann::json& args);
  nlohmann::json preset(const nlohmann::json& args);
  nlohmann::json rule(const nlohmann::json& args);
  nlohmann::json watch(const nlohmann::json& args);
  nlohmann::json agent(const nlohmann::json& args);
  nlohmann::json set(const nlohmann::json& args);
  nlohmann::json overrideFloor(const nlohmann::json& args);
  nlohmann::json track(const nlohmann::json& args);
  nlohmann::json energy();
  nlohmann::json power();
  nlohmann::json powerTest(const nlohmann::json& args);
  // `measure` answers once the estimate is done: the reply is written then.
  void measure(const std::string& id);
  nlohmann::json appsUsingEnergy(std::size_t limit);
  nlohmann::json approve(const nlohmann::json& args);
  nlohmann::json approveDictionary() const;

  Engine& engine_;
  std::function<void()> quit_;
  const AgentWork* work_ = nullptr;
  const PowerWatch* power_ = nullptr;
  AutoApprove* approve_ = nullptr;
  std::map<std::string, std::function<nlohmann::json(const nlohmann::json&)>> extra_;
  ClosedLid* closedLid_ = nullptr;
  Savings* savings_ = nullptr;
  std::map<std::string, std::function<void(const nlohmann::json&, std::function<void(const nlohmann::json&)>)>>
      deferred_;
  std::function<bool(const nlohmann::json&)> inApp_;
  std::vector<std::pair<std::string, std::function<std::optional<std::string>()>>> unavailable_;
};

}  // namespace vigilo
