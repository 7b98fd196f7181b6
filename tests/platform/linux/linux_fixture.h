#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "platform/linux/linux_platform.h"
#include "platform/manual_run_loop.h"
#include "test_support.h"

namespace vigilo::test {

// A bus address where no bus listens.
inline const std::string kNoBus = "unix:path=/nonexistent/vigilo-test/bus";

// Given a fixture tree standing in for / (its /sys and /proc), a manual
// clock and loop, and the Linux platform over them.
class LinuxTreeTest : public ::testing::Test {
 protected:
  LinuxTreeTest() : loop_(clock_) {}

  // Writes `text` at `path` (absolute, as on a real machine) in the tree.
  void put(const std::string& path, const std::string& text) {
    const std::filesystem::path full = dir_.path() + path;
    std::filesystem::create_directories(full.parent_path());
    writeFile(full.string(), text);
  }
  void putAll(const std::map<std::string, std::string>& files) {
    for (const auto& [path, text] : files) put(path, text);
  }
  void removeFromTree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(dir_.path() + path, ec);
  }
  std::unique_ptr<Platform> platform(const std::string& bus = kNoBus) {
    return makeLinuxPlatform(clock_, loop_, LinuxPlatformOptions{dir_.path(), bus});
  }

  TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_;
};

}  // namespace vigilo::test
