#pragma once

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/run_loop.h"
#include "power/power_sensor.h"

namespace vigilo {

class Engine;
class ClosedLid;

// What four whole-machine readings (all savings off, on, off, on) say.
struct TotalResult {
  double closedWithout = 0;  // (r0 + r2) / 2
  double closedWith = 0;     // (r1 + r3) / 2
  double d1 = 0;             // r0 - r1
  double d2 = 0;             // r2 - r3
  bool unclear = false;      // the two differences disagree too much to trust
  double total = 0;          // the smaller difference, at least 0 (when clear)
};
// The two differences must agree within 35 % of the larger one, and never
// tighter than 0.6 W: the machine's own load moves that much by itself.
TotalResult judgeTotal(const std::array<double, 4>& readings);

// The result lines of a power test.
std::string unclearText(const std::string& machine);
std::string measuredText(double watts);

// The power test: with the lid shut and the machine held awake, switches
// the lid-closed savings off and on and reads the whole machine's draw from
// the battery over whole updates of its controller, so the person learns
// what the savings are worth on this machine. Runs on the main thread from
// a one-second poll of the run loop; between readings it stops at once when
// the lid opens, the hold ends, the adapter is plugged in or out, the
// machine gets hot or someone asks it to stop, and always puts back the
// savings it found.
class PowerTest {
 public:
  PowerTest(Engine& engine, ClosedLid& closedLid);
  ~PowerTest();
  PowerTest(const PowerTest&) = delete;
  PowerTest& operator=(const PowerTest&) = delete;

  // Starts a test; gives the reason when it cannot start.
  std::optional<std::string> start(bool includeScreen, bool detailed);
  // Ends a running test early, on request.
  void stop();
  // Called with true when a test starts and false when it ends (nothing is
  // learned about the machine's draw meanwhile).
  void onRunning(std::function<void(bool)> fn) { onRunning_ = std::move(fn); }

  bool running() const { return running_; }
  const std::optional<std::string>& progress() const { return progress_; }
  const std::optional<std::string>& aborted() const { return aborted_; }
  // Watts saved by name: "total", and "apps", "simulators", "audio",
  // "low_power", "screen" from the detailed steps.
  const std::map<std::string, double>& effects() const { return effects_; }
  const std::set<std::string>& unclear() const { return unclear_; }
  // The whole draw with the savings on in the last clear total test.
  const std::optional<double>& closedWith() const { return closedWith_; }
  bool screenStepRan() const { return screenStepRan_; }
  bool everRan() const { return everRan_; }
  // The expected length of the test last started, in seconds of the clock.
  double aboutSeconds() const { return aboutSeconds_; }
  // "Measured: ...", the unclear text, or nothing before a total test ended.
  std::optional<std::string> resultText() const;

 private:
  struct Reading {
    std::set<std::string> off;  // the savings switched off for it
    std::string progress;
  };
  struct Step {
    std::string name;  // "total" or a saving's name
    std::vector<Reading> readings;
  };
  void poll();
  std::optional<std::string> abortReason() const;
  void beginReading();
  void finishStep(const Step& step);
  void end(std::optional<std::string> aborted);
  std::optional<PowerSample> sampleNow();

  Engine& engine_;
  ClosedLid& closedLid_;
  std::function<void(bool)> onRunning_;
  bool running_ = false;
  bool everRan_ = false;
  bool stopAsked_ = false;
  std::optional<std::string> progress_;
  std::optional<std::string> aborted_;
  std::map<std::string, double> effects_;
  std::set<std::string> unclear_;
  std::optional<double> closedWith_;
  bool screenStepRan_ = false;
  double aboutSeconds_ = 0;

  // The test in progress.
  std::set<std::string> was_;
  bool startOnPower_ = false;
  std::vector<Step> steps_;
  std::size_t step_ = 0;
  std::size_t reading_ = 0;
  std::vector<double> values_;  // finished readings of the current step
  Time readingStarted_ = 0;
  std::optional<PowerSample> first_;   // at the reading's start
  std::optional<PowerSample> update_;  // the first controller update after the change
  std::vector<double> instant_;        // instantaneous watts, without an accumulator
  std::optional<TimerId> timer_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vigilo
