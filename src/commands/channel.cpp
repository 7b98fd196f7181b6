#include "commands/channel.h"

#include "platform/own_program.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

#include "agents/agent_events.h"
#include "agents/careful_file.h"
#include "engine/hold.h"
#include "commands/app_folder.h"
#include "engine/log.h"
#include "engine/records.h"
#include "platform/files.h"
#include "platform/private_folder.h"
#include "platform/runtime_folder.h"
#include "platform/socket_listener.h"
#include "platform/spawn.h"

namespace vigilo {
namespace {

using Steady = std::chrono::steady_clock;

std::string repliesFolder(const std::string& appFolder) { return appFolder + "/" + kRepliesFolder; }

std::string selfExecutable() { return ownExecutable().value_or("vigilo"); }

// Runs argv detached from us (a new session, our blocked signals cleared),
// its output in a new file of its own, and waits only for the starter itself
// when `wait` is set.
bool spawn(const std::vector<std::string>& argv, const std::string& output, bool wait,
           std::optional<std::vector<std::string>> environment = std::nullopt) {
  SpawnOptions options;
  options.argv = argv;
  options.environment = std::move(environment);
  options.in = SpawnStream::null();
  options.out = SpawnStream::file(output);
  options.err = SpawnStream::output();
  options.newSession = true;
  options.clearSignalMask = true;
  const Spawned child = spawnProcess(options);
  if (!child) return false;
  return !wait || waitForExit(child.pid).ok();
}

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

bool autostartForbidden() {
  const char* v = std::getenv(kNoAutostartVariable);
  return v != nullptr && *v != '\0' && std::string_view(v) != "0";
}

std::optional<nlohmann::json> takeReply(const std::string& path) {
  auto bytes = readWholeFile(path, 16 * 1024 * 1024);
  if (!bytes) return std::nullopt;
  if (!jsonNestingWithin(*bytes, 64)) return std::nullopt;
  auto j = nlohmann::json::parse(*bytes, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  ::unlink(path.c_str());
  return j;
}

// A reply is a few kilobytes; the panel's, with its lists, a few dozen.
constexpr std::size_t kReplyRoom = 64 * 1024;

// Whether the app can write a reply into `folder` now: a file of a reply's
// size is written there and removed. A full disk or a read-only folder says
// so in a sentence, before anything is asked of the app.
Result replyRoom(const std::string& folder) {
  const std::string probe = folder + "/.room-" + std::to_string(::getpid());
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::open(probe.c_str(), flags, 0600);
  int err = fd < 0 ? errno : 0;
  if (fd >= 0) {
    static const std::string zeros(kReplyRoom, '\0');
    std::string_view rest = zeros;
    while (err == 0 && !rest.empty()) {
      ssize_t n = ::write(fd, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        err = n < 0 ? errno : ENOSPC;
      } else {
        rest.remove_prefix(static_cast<std::size_t>(n));
      }
    }
    if (::close(fd) != 0 && err == 0) err = errno;
    ::unlink(probe.c_str());
  }
  if (err == 0) return Result::ok();
  std::string why = err == ENOSPC || err == EDQUOT ? "the disk is full"
                    : err == EROFS                 ? "the disk is mounted read-only"
                    : err == EACCES || err == EPERM ? "the folder is read-only"
                                                    : std::strerror(err);
  return Result::fail("Vigilo can't write its answers to " + folder + " (" + why + ")", err);
}

}  // namespace

Result checkAppFolder(const std::string& appFolder, bool make) {
  if (Result r = make ? makePrivateFolder(appFolder) : checkPrivateFolder(appFolder); !r) {
    if (!make && r.code() == ENOENT) return Result::ok();
    return r;
  }
  for (const char* sub : {kAgentEventsFolder, kRepliesFolder}) {
    const std::string path = appFolder + "/" + sub;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) continue;  // made private when first needed
    if (Result r = checkPrivateFolder(path); !r) return r;
  }
  return Result::ok();
}

std::optional<pid_t> runningApp(const std::string& appFolder) {
  const std::string path = appFolder + "/" + kAppLockFile;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::optional<pid_t> pid;
  if (::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    char buf[32] = {0};
    ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
    long value = n > 0 ? std::strtol(buf, nullptr, 10) : 0;
    pid = value > 0 ? static_cast<pid_t>(value) : 0;
  }
  ::close(fd);
  return pid;
}

std::string timeoutError() { return kTimeoutErrorLinux; }

std::optional<std::string> recordedMachine(const std::string& appFolder) {
  const StateFiles files(appFolder);
  const auto record = readRecord(files, kMachineFile, 64 * 1024);
  if (!record.bytes && !record.damaged) return std::nullopt;
  if (record.bytes && jsonNestingWithin(*record.bytes, 4)) {
    const auto j = nlohmann::json::parse(*record.bytes, nullptr, false);
    const auto machine = j.is_object() ? j.find("machine") : j.end();
    if (j.is_object() && machine != j.end() && machine->is_string()) {
      if (*machine == "real") return std::string();
      const auto file = j.find("file");
      if (*machine == "sim" && file != j.end() && file->is_string() && !file->get<std::string>().empty()) {
        return file->get<std::string>();
      }
    }
  }
  logLine("vigilo: " + setAsideDamaged(files, kMachineFile, "Vigilo's note of which machine its folder belongs to",
                                             "the app notes it again when it starts", wallNow()));
  return std::nullopt;
}

bool recordMachine(const std::string& appFolder, const std::string& simulateFile) {
  nlohmann::json j = simulateFile.empty() ? nlohmann::json{{"machine", "real"}}
                                          : nlohmann::json{{"machine", "sim"}, {"file", simulateFile}};
  return writeFileDurably(appFolder + "/" + kMachineFile, dumpJson(j) + "\n").isOk();
}

std::string machineName(const std::string& simulateFile) {
  return simulateFile.empty() ? std::string("this machine") : "the simulated laptop " + simulateFile;
}

bool launchApp(const std::string& appFolder) {
  std::error_code ec;
  if (!makePrivateFolder(appFolder)) return false;
  const char* home = std::getenv("HOME");
  const char* xdgConfig = std::getenv("XDG_CONFIG_HOME");
  std::string unitDir = xdgConfig && *xdgConfig ? std::string(xdgConfig) + "/systemd/user"
                                                : std::string(home ? home : "") + "/.config/systemd/user";
  const char* vigiloHome = std::getenv("VIGILO_HOME");
  // The folder's own machine unless the caller names a simulated laptop: a
  // tool run without VIGILO_SIMULATE must not start a real-machine app on a
  // folder whose records belong to a simulated laptop.
  std::string simulate;
  if (const char* env = std::getenv("VIGILO_SIMULATE"); env != nullptr && *env != '\0') {
    simulate = env;
  } else if (auto recorded = recordedMachine(appFolder)) {
    simulate = *recorded;
  }
  const std::string log = appFolder + "/app.log";
  // The unit runs the default folder on the real machine; a folder of its
  // own (tests) or a simulated laptop starts the app directly.
  const bool plain = (!vigiloHome || !*vigiloHome) && simulate.empty();
  if (plain && std::filesystem::exists(unitDir + "/vigilo.service", ec)) {
    // systemctl finds the user manager through XDG_RUNTIME_DIR, which an
    // agent's stripped environment lacks: it follows from the user id.
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
      if (std::string_view(*e).rfind("XDG_RUNTIME_DIR=", 0) != 0) env.emplace_back(*e);
    }
    if (const std::string runtime = userRuntimeFolder(); !runtime.empty()) env.push_back("XDG_RUNTIME_DIR=" + runtime);
    if (spawn({"/usr/bin/systemctl", "--user", "start", "vigilo.service"}, "/dev/null", true, env)) return true;
  }
  std::vector<std::string> argv{selfExecutable(), "app"};
  if (!simulate.empty()) {
    argv.push_back("--simulate");
    argv.push_back(simulate);
  }
  return spawn(argv, log, false);
}

RequestClient::RequestClient(std::string appFolder)
    : appFolder_(std::move(appFolder)), notifications_(makeSocketNotifications(appFolder_, nullptr)) {}

std::optional<nlohmann::json> RequestClient::attempt(const std::string& cmd, const nlohmann::json& args,
                                                     double timeout, double connectWait) {
  const std::string id = newUuid();
  const std::string folder = repliesFolder(appFolder_);
  const std::string replyPath = folder + "/" + id + ".json";

  const auto start = Steady::now();
  const auto deadline = start + std::chrono::duration<double>(timeout);
  // The app drops the request once this has passed: what the caller gives
  // up on is never done later.
  nlohmann::json request = {{"id", id},
                            {"cmd", cmd},
                            {"args", args.is_object() ? args : nlohmann::json::object()},
                            {kDeadlineKey, wallNow() + timeout}};
  const std::string text = dumpJson(request);
  Result posted = notifications_->post(kRequestNotification, text);
  // A freshly started app may not listen yet.
  const auto connectDeadline = std::min(deadline, start + std::chrono::duration<double>(connectWait));
  while (!posted && Steady::now() < connectDeadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    posted = notifications_->post(kRequestNotification, text);
  }
  std::optional<nlohmann::json> reply;
  if (!posted) return reply;
  // Most replies come within a millisecond or two: look often at first,
  // then less and less often, up to the 0.05 s that bounds the wait: each
  // pause is a tenth of the time waited so far, so waiting costs at most a
  // tenth more. Hundreds of tools queued behind one another then take
  // little CPU from the app that answers them. (A file watch would wake
  // sooner, but closing an inotify descriptor costs the kernel several
  // milliseconds, more than it saves.)
  // A reply slower than this is worth a look at who took the request: a
  // program squatting on the app's address never answers.
  bool listenerChecked = false;
  for (;;) {
    if ((reply = takeReply(replyPath))) break;
    const auto now = Steady::now();
    if (now >= deadline) break;
    if (!listenerChecked && now - start >= std::chrono::seconds(1)) {
      listenerChecked = true;
      const auto app = runningApp(appFolder_);
      const auto listener = listenerOf(appFolder_, kRequestNotification);
      if (app && *app > 0 && listener && listener->pid != *app) break;
    }
    const auto pause = std::chrono::duration_cast<std::chrono::microseconds>(now - start) / 10;
    std::this_thread::sleep_for(std::clamp(pause, std::chrono::microseconds(500), std::chrono::microseconds(50000)));
  }
  return reply;
}

// Why no reply came, in words that are true: the folder couldn't take the
// reply, another program holds the app's address, or no answer at all.
static std::string whyNoAnswer(const std::string& appFolder) {
  if (Result room = replyRoom(repliesFolder(appFolder)); !room) {
    return room.message() + ", so it may have done what was asked without being able to say so. Make room, then "
                            "check with: vigilo status";
  }
  const auto app = runningApp(appFolder);
  if (app && *app > 0) {
    const auto listener = listenerOf(appFolder, kRequestNotification);
    const std::string which = "Vigilo (process " + std::to_string(*app) + ")";
    if (!listener) return which + " isn't listening for requests yet; it keeps trying to take its address.";
    if (listener->pid != *app) {
      return "Another program (process " + std::to_string(listener->pid) + (listener->uid != ::getuid() ? ", another user's" : "") +
             ") holds Vigilo's request address, so " + which +
             " can't hear requests; it keeps trying to take the address. Stop that program (kill " +
             std::to_string(listener->pid) + ").";
    }
  }
  return timeoutError();
}

nlohmann::json RequestClient::send(const std::string& cmd, const nlohmann::json& args, double timeout) {
  launched_ = false;
  // A folder the app can't answer in gets nothing: a request it carried out
  // would then be reported as failed.
  Result ready = checkAppFolder(appFolder_);
  if (ready) ready = makePrivateFolder(repliesFolder(appFolder_));
  if (!ready) return {{"ok", false}, {"error", ready.message()}};
  if (Result room = replyRoom(repliesFolder(appFolder_)); !room) {
    return {{"ok", false}, {"error", room.message() + ", so nothing was asked of it."}};
  }
  // An app that holds its folder's lock but does not listen yet is still
  // starting: keep trying to reach it within the time-out.
  if (auto reply = attempt(cmd, args, timeout, runningApp(appFolder_) ? timeout : 0)) return *reply;
  if (!runningApp(appFolder_) && !autostartForbidden()) {
    launched_ = launchApp(appFolder_);
    // Give the app up to 2.5 s to start listening, then try once more.
    if (launched_) {
      if (auto reply = attempt(cmd, args, timeout, 2.5)) return *reply;
    }
  }
  return {{"ok", false}, {"error", whyNoAnswer(appFolder_)}};
}


bool writeReply(const std::string& appFolder, const std::string& id, const nlohmann::json& reply) {
  const std::string folder = repliesFolder(appFolder);
  if (!makePrivateFolder(folder)) return false;
  return writeFileAtomically(folder + "/" + id + ".json",
                          dumpJson(reply) + "\n")
      .isOk();
}

}  // namespace vigilo
