#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/linux_platform.h"
#include "platform/manual_run_loop.h"
#include "test_support.h"

namespace vigilo::test {

// A bus address where no bus listens.
inline const std::string kNoBus = "unix:path=/nonexistent/vigilo-test/bus";

// The capability called `name`, or nothing.
inline const Capability* capability(const std::vector<Capability>& caps, const std::string& name) {
  auto it = std::find_if(caps.begin(), caps.end(), [&](const Capability& c) { return c.name == name; });
  return it == caps.end() ? nullptr : &*it;
}

// Sets an environment variable (or unsets it, for nothing) and puts it back.
class EnvVar {
 public:
  EnvVar(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    set(value);
  }
  ~EnvVar() { set(old_); }

 private:
  void set(const std::optional<std::string>& v) { v ? ::setenv(name_, v->c_str(), 1) : ::unsetenv(name_); }
  const char* name_;
  std::optional<std::string> old_;
};

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
  // Writes a power supply's files from "key=value,key=value" (each value
  // gets its newline), e.g. supply("AC", "type=Mains,online=1").
  void supply(const std::string& name, const std::string& spec) {
    std::istringstream items(spec);
    for (std::string item; std::getline(items, item, ',');) {
      const std::size_t eq = item.find('=');
      put("/sys/class/power_supply/" + name + "/" + item.substr(0, eq), item.substr(eq + 1) + "\n");
    }
  }
  // A thermal zone with one critical trip at 100 °C, at `milli`.
  void zone(int n, int milli) {
    const std::string z = "/sys/class/thermal/thermal_zone" + std::to_string(n) + "/";
    putAll({{z + "type", "acpitz\n"}, {z + "temp", std::to_string(milli) + "\n"},
            {z + "trip_point_0_type", "critical\n"}, {z + "trip_point_0_temp", "100000\n"}});
  }
  void removeFromTree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(dir_.path() + path, ec);
  }
  std::unique_ptr<Platform> platform(const std::string& bus = kNoBus) {
    return makeLinuxPlatform(clock_, loop_, LinuxPlatformOptions{dir_.path(), bus, dir_.file("app")});
  }

  TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_;
};

}  // namespace vigilo::test
