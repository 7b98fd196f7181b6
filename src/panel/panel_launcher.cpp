#include "panel/panel_launcher.h"

#include "platform/own_program.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string_view>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "panel/panel_command.h"
#include "platform/spawn.h"

extern char** environ;

namespace vigilo {
namespace {

using json = nlohmann::json;

constexpr int kControlFd = 3;
// A snapshot that takes longer than this is stuck (a display that never
// answers): it is stopped and the request fails.
constexpr double kSnapshotLimit = 20.0;
constexpr const char* kPages = "now, power, settings or setup";

std::string newKey() {
  unsigned char bytes[32];
  std::size_t got = 0;
  while (got < sizeof bytes) {
    const ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return {};
    got += static_cast<std::size_t>(n);
  }
  static const char* hex = "0123456789abcdef";
  std::string key;
  for (unsigned char b : bytes) {
    key += hex[b >> 4];
    key += hex[b & 15];
  }
  return key;
}

bool sameText(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

bool sendLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == static_cast<ssize_t>(text.size());
}

std::string noDisplay() {
  return "The panel needs a graphical session, and this app has none (neither WAYLAND_DISPLAY nor DISPLAY is set). "
         "vigilo status shows the same; or run vigilo app from your desktop session.";
}

}  // namespace

PanelLauncher::PanelLauncher(RunLoop& loop, std::string appFolder, std::function<std::string()> status,
                             std::function<void(const std::string&)> say, bool simulated)
    : loop_(loop),
      appFolder_(std::move(appFolder)),
      status_(std::move(status)),
      say_(std::move(say)),
      simulated_(simulated) {}

PanelLauncher::~PanelLauncher() {
  // The panel quits by itself when its control socket closes; snapshots are
  // stopped. Neither outlives the app.
  for (auto& [pid, child] : snapshots_) {
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    forget(child);
  }
  if (panel_.pid > 0) {
    ::close(panel_.control);
    panel_.control = -1;
    ::kill(panel_.pid, SIGTERM);
    ::waitpid(panel_.pid, nullptr, 0);
    forget(panel_);
  }
}

bool PanelLauncher::knownPage(const std::string& page) {
  return page == "now" || page == "power" || page == "settings" || page == "setup";
}

void PanelLauncher::forget(Child& child) {
  if (child.exitWatch) loop_.unwatch(child.exitWatch);
  if (child.outputWatch) loop_.unwatch(child.outputWatch);
  for (int fd : {child.pidfd, child.control, child.output}) {
    if (fd >= 0) ::close(fd);
  }
  child = Child{};
}

// The panel's environment: ours, with the same app folder whatever the
// caller's environment said.
std::vector<std::string> PanelLauncher::panelEnvironment() const {
  std::vector<std::string> env{"VIGILO_HOME=" + appFolder_};
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string_view entry(*e);
    if (entry.rfind("VIGILO_HOME=", 0) == 0) continue;
    // The test driver clicks and confirms by itself: never on a real
    // machine, where only a person may loosen a safety setting.
    if (!simulated_ && entry.rfind("VIGILO_PANEL_SCRIPT=", 0) == 0) continue;
    env.emplace_back(entry);
  }
  return env;
}

bool PanelLauncher::start(Child& child, const std::vector<std::string>& extra, bool withControl, bool captureOutput,
                          std::function<void(pid_t, int)> exited, std::string& error) {
  const std::optional<std::string> self = ownExecutable();
  if (!self) {
    error = "couldn't find the vigilo executable";
    return false;
  }
  int control[2] = {-1, -1};
  int output[2] = {-1, -1};
  if (withControl && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, control) != 0) {
    error = std::string("couldn't make the panel's socket: ") + std::strerror(errno);
    return false;
  }
  if (captureOutput && ::pipe2(output, O_CLOEXEC) != 0) {
    error = std::string("couldn't make a pipe: ") + std::strerror(errno);
    if (withControl) ::close(control[0]), ::close(control[1]);
    return false;
  }
  SpawnOptions options;
  options.argv = {*self, "panel"};
  for (const auto& w : extra) options.argv.push_back(w);
  if (withControl) options.argv.insert(options.argv.end(), {"--control-fd", std::to_string(kControlFd)});
  options.environment = panelEnvironment();
  if (withControl) options.handOver.emplace_back(control[1], kControlFd);
  if (captureOutput) {
    options.out = SpawnStream::of(output[1]);
    options.err = SpawnStream::of(output[1]);
  }
  // The loop blocks the signals it reads from a signalfd; the panel needs
  // them back (Ctrl-C, the app's SIGTERM).
  options.clearSignalMask = true;
  options.defaultSignals = {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD};
  const Spawned panel = spawnProcess(options);
  if (withControl) ::close(control[1]);
  if (captureOutput) ::close(output[1]);
  if (!panel) {
    error = "couldn't start the panel: " + std::string(std::strerror(panel.code));
    if (withControl) ::close(control[0]);
    if (captureOutput) ::close(output[0]);
    return false;
  }
  const pid_t pid = panel.pid;
  child.pid = pid;
  child.control = withControl ? control[0] : -1;
  child.output = captureOutput ? output[0] : -1;
  if (child.output >= 0) {
    ::fcntl(child.output, F_SETFL, O_NONBLOCK);
    int fd = child.output;
    auto said = child.said;
    child.outputWatch = loop_.watchReadable(fd, [fd, said] {
      char buf[4096];
      ssize_t n;
      while ((n = ::read(fd, buf, sizeof buf)) > 0) {
        // Enough to say what went wrong; the rest is noise.
        if (said->size() < 16384) said->append(buf, static_cast<std::size_t>(n));
      }
    });
  }
  // The loop learns of the exit through a pidfd, so nothing ever waits.
  child.pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (child.pidfd < 0) {
    error = "this kernel can't watch the panel process (pidfd_open)";
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    forget(child);
    return false;
  }
  child.exitWatch = loop_.watchReadable(child.pidfd, [this, pid, exited] {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) != pid) return;
    // Posted: the handler may forget the child whose watch is running.
    loop_.post([exited, pid, status] { exited(pid, status); });
  });
  return true;
}

json PanelLauncher::open(const json& args) {
  std::string page = "now";
  if (auto it = args.find("where"); it != args.end() && it->is_string() && !it->get<std::string>().empty()) {
    page = it->get<std::string>();
  }
  if (!knownPage(page)) return {{"ok", false}, {"error", "There is no panel page " + page + ". Pages: " + kPages}};
  // A panel already shown turns to the page and comes to the front.
  if (panel_.pid > 0 && sendLine(panel_.control, "page " + page)) {
    return {{"ok", true}, {"status", status_()}, {"page", page}, {"opened", false}};
  }
  // A panel that closed its socket is on its way out: reap it before the
  // next one takes its place.
  if (panel_.pid > 0) {
    ::kill(panel_.pid, SIGTERM);
    ::waitpid(panel_.pid, nullptr, 0);
    key_.clear();
    forget(panel_);
  }
  if (auto why = panelUnavailable()) {
    return {{"ok", false}, {"error", graphicalSession() ? "Can't show " + *why : noDisplay()}};
  }
  std::string error;
  const std::string key = newKey();
  if (key.empty()) return {{"ok", false}, {"error", "Couldn't make the panel's key: no random bytes"}};
  Child child;
  if (!start(child, {"--page", page}, true, false,
             [this](pid_t pid, int status) {
               if (pid != panel_.pid) return;
               if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
                 say_("warning: the panel stopped with status " + std::to_string(WEXITSTATUS(status)));
               }
               key_.clear();
               forget(panel_);
             },
             error)) {
    return {{"ok", false}, {"error", "Couldn't open the panel: " + error}};
  }
  if (!sendLine(child.control, "key " + key)) {
    ::kill(child.pid, SIGTERM);
    return {{"ok", false}, {"error", "Couldn't hand the panel its key"}};
  }
  panel_ = child;
  key_ = key;
  return {{"ok", true}, {"status", status_()}, {"page", page}, {"opened", true}};
}

void PanelLauncher::snapshot(const json& args, std::function<void(const json&)> reply) {
  auto it = args.find("path");
  std::string path = it != args.end() && it->is_string() ? it->get<std::string>() : std::string();
  if (path.size() < 5 || path.compare(path.size() - 4, 4, ".png") != 0) {
    reply({{"ok", false}, {"error", "snapshot name must end in .png"}});
    return;
  }
  std::error_code ec;
  path = std::filesystem::absolute(path, ec).lexically_normal().string();
  if (auto why = panelUnavailable()) {
    reply({{"ok", false}, {"error", graphicalSession() ? "Can't draw " + *why
                                                       : "Can't draw the panel: this app has no display (neither "
                                                         "WAYLAND_DISPLAY nor DISPLAY is set). Run the app in a "
                                                         "desktop session, or under Xvfb."}});
    return;
  }
  Child child;
  std::string error;
  auto answered = std::make_shared<bool>(false);
  auto once = [reply, answered](const json& r) {
    if (*answered) return;
    *answered = true;
    reply(r);
  };
  const bool started = start(child, {"--page", "now", "--snapshot", path}, false, true,
                             [this, once, path](pid_t pid, int status) {
                               auto found = snapshots_.find(pid);
                               if (found != snapshots_.end() && found->second.output >= 0) {
                                 char buf[4096];
                                 ssize_t n;
                                 while ((n = ::read(found->second.output, buf, sizeof buf)) > 0) {
                                   found->second.said->append(buf, static_cast<std::size_t>(n));
                                 }
                               }
                               std::string said = found != snapshots_.end() ? *found->second.said : std::string();
                               if (found != snapshots_.end()) {
                                 forget(found->second);
                                 snapshots_.erase(found);
                               }
                               if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
                                 once({{"ok", true}, {"status", status_()}, {"path", path}});
                                 return;
                               }
                               // The panel's own "vigilo: ..." line says why.
                               // GTK's own warnings may come first.
                               std::string why;
                               for (std::size_t at = said.rfind("vigilo: "); at != std::string::npos;) {
                                 if (at == 0 || said[at - 1] == '\n') {
                                   why = said.substr(at + 8, said.find('\n', at) - at - 8);
                                   break;
                                 }
                                 at = at == 0 ? std::string::npos : said.rfind("vigilo: ", at - 1);
                               }
                               if (why.empty()) why = "the panel stopped before drawing";
                               once({{"ok", false}, {"error", "Couldn't draw the panel: " + why}});
                             },
                             error);
  if (!started) {
    once({{"ok", false}, {"error", "Couldn't draw the panel: " + error}});
    return;
  }
  const pid_t pid = child.pid;
  snapshots_[pid] = child;
  loop_.after(kSnapshotLimit, [this, pid, once] {
    if (snapshots_.count(pid) == 0) return;
    ::kill(pid, SIGKILL);
    once({{"ok", false}, {"error", "Couldn't draw the panel: it took longer than 20 seconds"}});
  });
}

bool PanelLauncher::fromPanel(const json& args) const {
  if (panel_.pid <= 0 || key_.empty()) return false;
  auto it = args.find("panel_key");
  return it != args.end() && it->is_string() && sameText(it->get<std::string>(), key_);
}

}  // namespace vigilo
