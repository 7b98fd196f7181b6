#pragma once

// dbusmock's notification daemon on a private session bus of its own
// (notify_mock.py beside this file). Ended by closing its input, never
// killed first: it takes its bus and the daemon along.

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "e2e/piped_process.h"
#include "test_support.h"

namespace vigilo::test {

class NotifyMock {
 public:
  // With `session`: {runtime folder, NAME=VALUE...}, the bus listens in the
  // runtime folder and a systemd user manager on it holds the NAME=VALUE
  // environment (notify_mock.py).
  explicit NotifyMock(const std::string& errFile, std::vector<std::string> session = {})
      : process_(withScript(std::move(session)), {}, errFile) {
    address = process_.readLine(std::chrono::seconds(30)).value_or("");
  }
  ~NotifyMock() {
    process_.closeInput();
    if (process_.wait(std::chrono::seconds(10)) < 0) process_.signal(SIGTERM);
    process_.wait(std::chrono::seconds(5));
  }
  NotifyMock(const NotifyMock&) = delete;
  NotifyMock& operator=(const NotifyMock&) = delete;

  // The notifications the daemon got so far, as [app, title, body]; null
  // when it does not answer.
  nlohmann::json shown() { return ask("\n"); }
  // The same notifications as [app, icon, desktop-entry hint].
  nlohmann::json icons() { return ask("icons\n"); }

  std::string address;  // empty when it did not start

 private:
  static std::vector<std::string> withScript(std::vector<std::string> session) {
    session.insert(session.begin(), sourceDir(__FILE__) + "/notify_mock.py");
    return session;
  }
  nlohmann::json ask(const std::string& line) {
    if (!process_.write(line)) return nullptr;
    auto answer = process_.readLine(std::chrono::seconds(10));
    return answer ? nlohmann::json::parse(*answer, nullptr, false) : nlohmann::json();
  }

  PipedProcess process_;
};

}  // namespace vigilo::test
