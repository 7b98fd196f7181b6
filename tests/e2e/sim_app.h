#pragma once

// The real `vigilo app --simulate` in a temporary app folder, driven from
// outside through the real binary, and asked to quit at the end of the test.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "e2e/app_process.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {

class SimAppTest : public ::testing::Test {
 protected:
  SimAppTest() { std::filesystem::create_directories(home_); }
  void TearDown() override { stopApp(); }

  // Starts the app with `env` added and waits until the tool gets its answer
  // (the tool starts no app of its own in tests, so the answer is this one's).
  void startApp(const std::vector<std::string>& env = {}) {
    app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app", "--simulate", state_}, home_,
                                        dir_.file("app.txt"), env, binary_);
    ASSERT_TRUE(waitFor([&] { return vigilo({"status"}).status == 0; }, std::chrono::seconds(10)))
        << app_->output();
  }
  // Another run of the app with `extra` arguments and an output file of its
  // own, left to the test to end.
  std::unique_ptr<AppProcess> launch(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{"app", "--simulate", state_};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::make_unique<AppProcess>(args, home_, dir_.file("out-" + std::to_string(++runs_) + ".txt"));
  }
  // Asks the app to quit; it ends cleanly.
  void stopApp() {
    if (!app_) return;
    app_->signal(SIGTERM);
    EXPECT_EQ(app_->wait(std::chrono::seconds(15)), 0) << app_->output();
    app_.reset();
  }
  ToolRun vigilo(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
    return runTool(args, home_, env, binary_);
  }
  nlohmann::json status() { return nlohmann::json::parse(vigilo({"status", "--json"}).out, nullptr, false); }
  bool outputHas(const std::string& text) const { return app_->output().find(text) != std::string::npos; }
  // Whether the simulated laptop's state file has sleep switched off now.
  bool sleepDisabled() const {
    SystemClock clock;
    SimLaptop laptop(clock);
    laptop.fromJson(nlohmann::json::parse(readFile(state_), nullptr, false));
    return laptop.sleepDisabled();
  }
  bool inHome(const std::string& name) const { return fileExists(home_ + "/" + name); }

  // The `vigilo` under test: the build's, or an installed copy.
  std::string binary_ = VIGILO_BINARY;
  TempDir dir_;
  std::string home_ = dir_.file("home");
  std::string state_ = dir_.file("laptop.json");
  std::unique_ptr<AppProcess> app_;
  int runs_ = 0;
};

}  // namespace vigilo::test
