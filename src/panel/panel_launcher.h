#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>
#include <optional>
#include <string>
#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>

#include "platform/run_loop.h"

namespace vigilo {

// The app's side of the panel: starts `vigilo panel` as a process of its
// own for `open` (one at a time; a second `open` turns the shown panel to
// its page) and for `snapshot`, and never waits for it on the loop.
//
// The panel it starts gets a one-time key on an inherited socket (never in
// argv or the environment); a `set` or `override_floor` carrying that key
// comes from the panel's own confirmed controls and may loosen a safety
// setting. The key dies with the panel.
class PanelLauncher {
 public:
  // `status` gives the status line for replies; `say` prints a line of the
  // app's output. `simulated`: the app runs on the simulated laptop, where
  // the tests may drive the panel's controls (VIGILO_PANEL_SCRIPT); on a
  // real machine that variable never reaches the panel.
  PanelLauncher(RunLoop& loop, std::string appFolder, std::function<std::string()> status,
                std::function<void(const std::string&)> say, bool simulated);
  ~PanelLauncher();
  PanelLauncher(const PanelLauncher&) = delete;
  PanelLauncher& operator=(const PanelLauncher&) = delete;

  // The `open` request: `where` a page ("now", "power", "settings",
  // "setup"; "now" when absent). Gives the whole reply.
  nlohmann::json open(const nlohmann::json& args);
  // The `snapshot` request: `path` ends in ".png". `reply` is called once,
  // on the loop, with the whole reply when the picture is written or failed.
  void snapshot(const nlohmann::json& args, std::function<void(const nlohmann::json&)> reply);
  // Whether `args` carry the key of the panel that runs now.
  bool fromPanel(const nlohmann::json& args) const;
  // Whether a panel window is open.
  bool shown() const { return panel_.pid > 0; }

  // The pages `open` knows.
  static bool knownPage(const std::string& page);

 private:
  struct Child {
    pid_t pid = -1;
    int pidfd = -1;
    WatchId exitWatch = 0;
    int control = -1;  // the panel window's control socket
    int output = -1;   // a snapshot's error output
    WatchId outputWatch = 0;
    std::shared_ptr<std::string> said = std::make_shared<std::string>();
  };
  // Starts `vigilo panel extra...`; false with `error` set on failure.
  std::vector<std::string> panelEnvironment() const;
  bool start(Child& child, const std::vector<std::string>& extra, bool withControl, bool captureOutput,
             std::function<void(pid_t pid, int status)> exited, std::string& error);
  void forget(Child& child);

  RunLoop& loop_;
  std::string appFolder_;
  std::function<std::string()> status_;
  std::function<void(const std::string&)> say_;
  bool simulated_;
  Child panel_;
  std::string key_;
  // Snapshots still drawing, by process id.
  std::map<pid_t, Child> snapshots_;
};

}  // namespace vigilo
