#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utime.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "platform/command_runner.h"
#include "safety/watchdog_script.h"
#include "test_support.h"

namespace vigilo::test {

// A folder of stand-in tools for the watchdog scripts: each records its
// argv as one line in "log" and answers from files the test writes.
//   sudo       fails while "sudo-fails" exists
//   ps -p N -o comm=   prints the name listed for N in "ps-table" ("N name")
//   date +%s   prints the content of "now"
//   launchctl, id (prints 501), systemctl, shasum (sha256sum's answer)
class FakeTools {
 public:
  explicit FakeTools(const std::string& dir);
  const std::string& bin() const { return bin_; }
  std::string log() const;
  std::vector<std::string> logLines() const;
  void clearLog() const;
  void setNow(long long now) const;
  void setSudoFails(bool fails) const;
  void setProcessName(pid_t pid, const std::string& name) const;
  // Runs `script` with /bin/sh (dash on Debian) under HOME `home` and a PATH
  // that finds these tools first; gives the exit status.
  int runScript(const std::string& script, const std::string& home) const;

 private:
  std::string dir_;
  std::string bin_;
};

// A real process that stays paused until continued.
class PausedProcess {
 public:
  PausedProcess();
  ~PausedProcess();
  pid_t pid() const { return pid_; }
  // Whether the kernel shows it stopped ("T" in /proc/<pid>/stat).
  bool stopped() const;

 private:
  pid_t pid_ = -1;
};

// Sets a file's modification time to `when` (seconds since 1970).
void setModified(const std::string& path, long long when);


namespace harness_detail {
inline void tool(const std::string& bin, const std::string& name, const std::string& body) {
  const std::string path = bin + "/" + name;
  writeFile(path, "#!/bin/sh\necho \"" + name + " $*\" >>\"$FAKE_DIR/log\"\n" + body + "\n");
  ::chmod(path.c_str(), 0755);
}
}  // namespace harness_detail

inline FakeTools::FakeTools(const std::string& dir) : dir_(dir), bin_(dir + "/bin") {
  std::filesystem::create_directories(bin_);
  harness_detail::tool(bin_, "sudo", "[ ! -e \"$FAKE_DIR/sudo-fails\" ]");
  harness_detail::tool(bin_, "launchctl", "exit 0");
  harness_detail::tool(bin_, "systemctl", "exit 0");
  harness_detail::tool(bin_, "id", "echo 501");
  harness_detail::tool(bin_, "date", "if [ \"$1\" = +%s ]; then cat \"$FAKE_DIR/now\"; else /bin/date \"$@\"; fi");
  harness_detail::tool(bin_, "ps",
       "while read -r p n; do [ \"$p\" = \"$2\" ] && { echo \"$n\"; exit 0; }; done <\"$FAKE_DIR/ps-table\"; exit 1");
  harness_detail::tool(bin_, "shasum", "shift 2; sha256sum \"$@\"");
  writeFile(dir_ + "/ps-table", "");
  writeFile(dir_ + "/log", "");
  setNow(1'800'000'000);
}

inline std::string FakeTools::log() const { return readFile(dir_ + "/log"); }

inline std::vector<std::string> FakeTools::logLines() const {
  std::vector<std::string> lines;
  std::istringstream in(log());
  for (std::string line; std::getline(in, line);) {
    // What the script asks of the machine, not how it reads the clock.
    if (line.rfind("date ", 0) != 0) lines.push_back(line);
  }
  return lines;
}

inline void FakeTools::clearLog() const { writeFile(dir_ + "/log", ""); }
inline void FakeTools::setNow(long long now) const { writeFile(dir_ + "/now", std::to_string(now) + "\n"); }

inline void FakeTools::setSudoFails(bool fails) const {
  if (fails) {
    writeFile(dir_ + "/sudo-fails", "");
  } else {
    std::filesystem::remove(dir_ + "/sudo-fails");
  }
}

inline void FakeTools::setProcessName(pid_t pid, const std::string& name) const {
  std::ofstream(dir_ + "/ps-table", std::ios::app) << pid << " " << name << "\n";
}

inline int FakeTools::runScript(const std::string& script, const std::string& home) const {
  ProcessRunner runner;
  return runner
      .run({"/usr/bin/env", "-i", "HOME=" + home, "PATH=" + bin_ + ":/usr/bin:/bin", "FAKE_DIR=" + dir_, "/bin/sh",
            script})
      .status;
}

inline PausedProcess::PausedProcess() {
  pid_ = ::fork();
  if (pid_ == 0) {
    ::execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // Wait for the exec, so the kernel names it "sleep", then pause it.
  for (int i = 0; i < 200; ++i) {
    std::error_code ec;
    if (std::filesystem::read_symlink("/proc/" + std::to_string(pid_) + "/exe", ec).filename() == "sleep") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(pid_, SIGSTOP);
  for (int i = 0; i < 200 && !stopped(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

inline PausedProcess::~PausedProcess() {
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

inline bool PausedProcess::stopped() const {
  std::string stat = readFile("/proc/" + std::to_string(pid_) + "/stat");
  auto close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'T';
}

inline void setModified(const std::string& path, long long when) {
  struct utimbuf times{static_cast<time_t>(when), static_cast<time_t>(when)};
  ::utime(path.c_str(), &times);
}


inline constexpr long long kScriptNow = 1'800'000'000;

// Given the Mac's or Linux's watchdog script for a temporary home, run by
// dash against stand-in tools: the absolute tool paths the Mac script uses
// are pointed at the stand-ins, everything else is the script as written.
class WatchdogScriptFixture : public ::testing::Test {
 protected:
  explicit WatchdogScriptFixture(bool mac) : mac_(mac), tools_(dir_.file("tools")) {
    home_ = dir_.file("home");
    exe_ = dir_.file(mac ? "Vigilo" : "vigilo");
    if (mac) {
      folder_ = home_ + "/Library/Application Support/Vigilo";
      link_ = dir_.file("usr-local-bin-vigilo");
      setupFiles_ = {home_ + "/Library/LaunchAgents/com.tarnwell.vigilo.watchdog.plist"};
    } else {
      folder_ = home_ + "/.local/share/vigilo";
      units_ = home_ + "/.config/systemd/user";
      link_ = home_ + "/.local/bin/vigilo";
      setupFiles_ = {units_ + "/vigilo-watchdog.timer", units_ + "/vigilo-watchdog.service"};
    }
    for (const std::string& f : setupFiles_) std::filesystem::create_directories(std::filesystem::path(f).parent_path());
    std::filesystem::create_directories(folder_);
    std::filesystem::create_directories(std::filesystem::path(link_).parent_path());
    writeFile(exe_, "#!/bin/sh\necho \"exe $*\" >>\"$FAKE_DIR/log\"\n");
    ::chmod(exe_.c_str(), 0755);
    for (const std::string& f : setupFiles_) writeFile(f, mac ? "<plist/>" : "");
    std::string s = mac ? macWatchdogScript(home_, folder_, exe_) : linuxWatchdogScript(folder_, exe_, link_, units_);
    for (auto [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"/usr/bin/sudo", tools_.bin() + "/sudo"},
             {"/bin/launchctl", tools_.bin() + "/launchctl"},
             {"/usr/bin/id", tools_.bin() + "/id"},
             {"/usr/bin/shasum", tools_.bin() + "/shasum"},
             {"/usr/local/bin/vigilo", link_}}) {
      if (!mac) break;
      for (auto at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) s.replace(at, from.size(), to);
    }
    writeFile(script(), s);
    tools_.setNow(kScriptNow);
  }
  std::string script() const { return folder_ + "/watchdog.sh"; }
  std::string file(const std::string& name) const { return folder_ + "/" + name; }
  bool has(const std::string& name) const { return fileExists(file(name)); }
  void put(const std::string& name, const std::string& text = "") const { writeFile(file(name), text); }
  int run() const { return tools_.runScript(script(), home_); }
  void removeApp() const { std::filesystem::remove(exe_); }

  bool mac_;
  TempDir dir_;
  FakeTools tools_;
  std::string home_, folder_, units_, link_, exe_;
  std::vector<std::string> setupFiles_;  // what the installer put outside the folder
};

}  // namespace vigilo::test
