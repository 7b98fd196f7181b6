#pragma once

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/engine.h"
#include "platform/manual_run_loop.h"
#include "platform/platform_wrapper.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {

// Stands in for agent detection: the test says what work is going on.
class ScriptedWork final : public WorkSource {
 public:
  void sample(Engine&) override {}
  std::optional<std::string> workReason(Engine&) override { return reason; }
  std::optional<std::string> lastWorker(Engine&) override { return worker; }
  std::optional<std::string> reason;
  std::optional<std::string> worker;
};

// Records on which ticks the slow jobs ran.
class RecordingSlowJobs final : public SlowJobs {
 public:
  void refreshWatchdog(Engine&) override { calls.push_back("refreshWatchdog"); }
  void checkWatchdog(Engine& e) override { calls.push_back("watchdog@" + std::to_string(e.ticks())); }
  void checkScheduledWake(Engine& e) override { calls.push_back("wake@" + std::to_string(e.ticks())); }
  void checkApprove(Engine& e) override { calls.push_back("approve@" + std::to_string(e.ticks())); }
  void endApproveIfUnwatched(Engine&) override { calls.push_back("endApprove"); }
  std::optional<Time> checkInUntil() const override { return std::nullopt; }
  std::vector<std::string> calls;
};

// The simulated laptop as the engine sees it: it may name itself in another
// backend's words, and its sleep switch may refuse, as a broken setup or a
// system that says no would. Refused calls never reach the laptop.
class TestMachine final : public PlatformWrapper {
 public:
  explicit TestMachine(Platform& laptop) : PlatformWrapper(laptop), switch_(laptop.power(), *this) {}
  const MachineWords& words() const override { return spoken ? *spoken : PlatformWrapper::words(); }
  PowerControl& power() override { return switch_; }

  std::optional<MachineWords> spoken;
  bool refuseOff = false;
  bool refuseOn = false;
  int refusedOff = 0;  // switch-offs refused so far

 private:
  struct Switch final : PowerControlWrapper {
    Switch(PowerControl& target, TestMachine& m) : PowerControlWrapper(target), m_(m) {}
    Result setSleepDisabled(bool disabled) override {
      if (disabled ? m_.refuseOff : m_.refuseOn) {
        m_.refusedOff += disabled ? 1 : 0;
        return Result::fail("The switch refused.");
      }
      return PowerControlWrapper::setSleepDisabled(disabled);
    }
    TestMachine& m_;
  } switch_;
};

// Given a simulated laptop, a manual clock and an engine in a fresh app
// folder. Tests arrange the laptop, call `launch()`, then move time.
class EngineTest : public ::testing::Test {
 protected:
  EngineTest() : loop_(clock_) {
    sim_ = makeSimPlatform(clock_, loop_, SimPlatformOptions{"", dir_.file("home")});
    machine_ = std::make_unique<TestMachine>(*sim_);
    folder_ = dir_.file("home");
  }
  ~EngineTest() override { engine_.reset(); }

  Engine& launch(EngineOptions options = {}) {
    engine_ = std::make_unique<Engine>(machine(), folder_, options);
    engine_->setWorkSource(&work_);
    engine_->setNoticeHandler([this](const Notice& n) {
      notices_.push_back(n.kind == Notice::Kind::Alert ? n.title + ": " + n.text : n.text);
    });
    engine_->launch();
    return *engine_;
  }
  Engine& engine() { return *engine_; }
  // The laptop speaks in `words`.
  void speak(MachineWords words) { machine_->spoken = std::move(words); }
  // The sleep switch refuses to switch sleep off, or back on.
  void refuse(bool off, bool on) {
    machine_->refuseOff = off;
    machine_->refuseOn = on;
  }
  TestMachine& machine() { return *machine_; }
  SimLaptop& laptop() { return sim_->laptop(); }
  StateFiles files() const { return StateFiles(folder_); }
  void advance(double seconds) { loop_.advance(seconds); }
  void writeConfig(const std::string& json) {
    std::filesystem::create_directories(folder_);
    writeFile(folder_ + "/config.json", json);
  }
  // How often the laptop was asked for a privileged operation.
  long count(const std::string& command) const {
    const auto& log = sim_->laptop().commandLog();
    return std::count(log.begin(), log.end(), command);
  }
  bool sawNotice(const std::string& text) const {
    return std::find(notices_.begin(), notices_.end(), text) != notices_.end();
  }

  TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_;
  std::unique_ptr<SimPlatform> sim_;
  std::unique_ptr<TestMachine> machine_;
  std::string folder_;
  ScriptedWork work_;
  std::unique_ptr<Engine> engine_;
  std::vector<std::string> notices_;
};

}  // namespace vigilo::test
