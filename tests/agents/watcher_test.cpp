#include <fcntl.h>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agents/catalogue.h"
#include "agents/watcher.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::UnorderedElementsAre;

class WatcherTest : public ::testing::Test {
 protected:
  WatcherTest() : loop_(clock_) {
    SimPlatformOptions options;
    options.appFolder = dir_.file("app");
    sim_ = makeSimPlatform(clock_, loop_, options);
    watcher_ = std::make_unique<AgentWatcher>(sim_->processes(), sim_->registry(), home(), clock_,
                                              [this](const std::string& bundle) { return bundles_[bundle]; });
  }

  SimLaptop& laptop() { return sim_->laptop(); }
  std::string home() const { return dir_.file("home"); }

  std::int32_t start(const std::string& path, std::vector<std::string> args = {}, std::int32_t ppid = 1,
                     double watts = 0.0, const std::string& cwd = "/") {
    const std::int32_t pid = laptop().startProcess(path, std::move(args), ppid);
    laptop().setProcessWatts(pid, watts);
    laptop().setProcessCwd(pid, cwd);
    return pid;
  }

  void sampleAfter(double seconds) {
    clock_.advance(seconds);
    watcher_->sample(watched_, requestsCount_, extra_, clock_.now());
  }

  const AgentSession* session(const std::string& id) const {
    for (const auto& s : watcher_->sessions())
      if (s.id == id) return &s;
    return nullptr;
  }
  std::vector<std::string> ids() const {
    std::vector<std::string> out;
    for (const auto& s : watcher_->sessions()) out.push_back(s.id);
    return out;
  }

  test::TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_;
  std::unique_ptr<SimPlatform> sim_;
  std::map<std::string, BundleMeta> bundles_;
  std::unique_ptr<AgentWatcher> watcher_;
  std::vector<WatchedApp> watched_;
  bool requestsCount_ = true;
  std::vector<AgentKind> extra_;
};

TEST_F(WatcherTest, RecognisesEveryAgentAsItIsReallyInstalled) {
  // The executable path as the kernel resolves it, and argv as it was started.
  extra_ = {kindFor(CustomAgent{"Bot", {"mybot"}, 0.05})};
  watcher_->sample(watched_, true, extra_, clock_.now());  // takes in the custom kind
  const std::string v = "/home/me/.local/share/claude/versions/2.0.14";
  const std::string cursor = "/Users/me/.local/share/cursor-agent/versions/2025.11.06-8fe8a63/";
  const std::string nvm = "/home/me/.nvm/versions/node/v22.11.0/bin/";
  const std::tuple<std::string, std::vector<std::string>, std::optional<std::string>> rows[] = {
      // Claude Code: native (a file named by its version), npm.
      {v, {"claude"}, "claude-code"},
      {v, {v, "--output-format", "stream-json"}, "claude-code"},
      {"/usr/bin/node", {"claude"}, "claude-code"},  // the process title it sets
      {v, {"rg", "-n", "TODO"}, std::nullopt},  // the same binary serving as another tool
      // Codex: npm's launcher after node's flags, the native binary it starts, a release binary.
      {"/usr/local/bin/node", {"node", "--a", "--b", "/lib/node_modules/@openai/codex/bin/codex.js"}, "codex"},
      {"/usr/lib/node_modules/@openai/codex/node_modules/@openai/codex-linux-x64/vendor/x86_64-unknown-linux-musl/bin/codex",
       {"codex"}, "codex"},
      {"/home/me/bin/codex-x86_64-unknown-linux-musl", {"/home/me/bin/codex-x86_64-unknown-linux-musl"}, "codex"},
      // Gemini CLI: the child it restarts itself as, under bun.
      {"/usr/bin/node",
       {"/usr/bin/node", "--max-old-space-size=8192", "--no-warnings=DEP0040",
        "/usr/local/lib/node_modules/@google/gemini-cli/dist/index.js"},
       "gemini"},
      {"/usr/local/bin/bun", {"bun", "/x/node_modules/@google/gemini-cli/dist/index.js"}, "gemini"},
      {cursor + "node", {cursor + "node", "--use-system-ca", cursor + "index.js"}, "cursor-agent"},
      // Aider run as a module.
      {"/usr/bin/python3.12", {"python3", "-m", "aider", "--model", "x"}, "aider"},
      {nvm + "node", {"node", nvm + "copilot"}, "copilot"},
      {"/opt/homebrew/bin/node", {"node", "/opt/homebrew/bin/amp"}, "amp"},
      {"/Applications/Ollama.app/Contents/Resources/ollama",
       {"/Applications/Ollama.app/Contents/Resources/ollama", "runner", "--model", "m"}, "ollama"},
      {"/home/me/bin/mybot", {"mybot"}, "custom:Bot"},
      // Package runners start the agent; they are none.
      {"/usr/bin/node", {"node", "/usr/bin/npx", "@google/gemini-cli"}, std::nullopt},
      {"/usr/bin/node", {"npm exec @openai/codex"}, std::nullopt},
      {"/home/me/.bun/bin/bun", {"bun", "x", "@sourcegraph/amp"}, std::nullopt},
      {nvm + "node", {"node", "/home/me/server.js", "--port", "3000"}, std::nullopt},
      {"", {}, std::nullopt},
  };
  for (const auto& [path, args, kind] : rows) {
    SCOPED_TRACE(path + " " + (args.empty() ? "" : args.back()));
    const auto found = watcher_->match(start(path, args), path);
    EXPECT_EQ(found ? std::optional(found->id) : std::nullopt, kind);
  }
}

TEST_F(WatcherTest, EachKindIsBusyAtItsOwnIdleThreshold) {
  // Given one process of each kind drawing just below, then at or just above, its threshold.
  watched_ = {{"Editor"}};
  extra_ = {kindFor(CustomAgent{"Greedy", {"greedy"}, 1.0})};
  const std::tuple<std::string, std::string, double, double> cases[] = {
      {"ollama", "/usr/local/bin/ollama", 0.5, 0.5},  // exactly at it counts
      {"app:Editor", "/Applications/Editor.app/Contents/MacOS/Editor", 0.15, 0.16},
      {"custom:Greedy", "/usr/local/bin/greedy", 1.0, 1.05},
  };
  std::map<std::string, std::int32_t> pids;
  for (const auto& [id, path, threshold, busy] : cases) pids[id] = start(path, {}, 1, threshold * 0.95);
  sampleAfter(2);
  sampleAfter(2);
  for (const auto& [id, path, threshold, busy] : cases) {
    ASSERT_NE(session(id), nullptr) << id;
    EXPECT_NEAR(session(id)->watts, threshold * 0.95, 1e-6) << id;
    EXPECT_FALSE(session(id)->lastActive) << id << " is idle below its threshold";
    laptop().setProcessWatts(pids[id], busy);
  }
  sampleAfter(2);
  const Time busyAt = clock_.now();
  for (const auto& [id, path, threshold, busy] : cases) laptop().setProcessWatts(pids[id], 0);
  sampleAfter(2);
  for (const auto& [id, path, threshold, busy] : cases) EXPECT_EQ(session(id)->lastActive, busyAt) << id;
}

TEST_F(WatcherTest, EachAgentRootIsOneSessionWithItsWholeTreeAndItsRunningTools) {
  // Given two Claude Code sessions: one in "api" with a worker, an MCP
  // server and a shell running make; one started later in "web", idle.
  const std::int32_t api = start("/usr/local/bin/claude", {"claude"}, 1, 0.1, "/home/me/api/");
  const std::int32_t worker =
      start("/usr/local/bin/node", {"node", "/x/@anthropic-ai/claude-code/worker.js"}, api, 0.2);
  const std::int32_t mcp = start("/usr/local/bin/github-mcp-server", {"github-mcp-server"}, api, 0.05);
  const std::int32_t npx = start("/usr/local/bin/node", {"node", "/x/npx-cli.js", "some-mcp"}, api);
  clock_.advance(30);
  const std::int32_t web = start("/usr/local/bin/claude", {"claude"}, 1, 0.01, "/home/me/web");
  const Time shellStart = clock_.now();
  const std::int32_t shell = start("/bin/zsh", {"/bin/zsh", "-c", "make test"}, api);
  clock_.advance(1);
  const std::int32_t make = start("/usr/bin/make", {"make", "test"}, shell, 3.0);
  const std::int32_t cc = start("/usr/bin/cc", {"cc"}, make, 1.0);
  start("/usr/bin/vim", {"vim"}, 1, 5.0);

  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("claude-code", "claude-code#" + std::to_string(web)));
  const AgentSession* first = session("claude-code");
  EXPECT_EQ(std::tuple(first->pids, first->instances, first->project, first->watts),
            std::tuple(std::vector<std::int32_t>{api}, 2, std::optional<std::string>("api"), 0.0));
  EXPECT_TRUE(first->toolRunning);
  EXPECT_NEAR(first->toolSince.value_or(0), shellStart, 1e-6) << "the shell's start, before its children's";
  const AgentSession* second = session("claude-code#" + std::to_string(web));
  EXPECT_EQ(std::tuple(second->project, second->toolRunning, second->instances),
            std::tuple(std::optional<std::string>("web"), false, 1));
  EXPECT_THAT(watcher_->protectedPids(), UnorderedElementsAre(api, worker, mcp, npx, shell, make, cc, web));

  // The tree's power counts children of children; the idle session is not busy.
  sampleAfter(10);
  EXPECT_NEAR(session("claude-code")->watts, 0.1 + 0.2 + 0.05 + 3.0 + 1.0, 1e-6);
  EXPECT_EQ(session("claude-code")->lastActive, clock_.now());
  EXPECT_NEAR(session("claude-code#" + std::to_string(web))->watts, 0.01, 1e-6);
  EXPECT_FALSE(session("claude-code#" + std::to_string(web))->lastActive);

  // A compile that started and did its work within the interval counts; the
  // command ends and no tool runs.
  const std::int32_t ld = start("/usr/bin/ld", {"ld"}, make, 4.0);
  clock_.advance(5);
  laptop().setProcessWatts(ld, 0);
  sampleAfter(5);
  EXPECT_NEAR(session("claude-code")->watts, 0.35 + 3.0 + 1.0 + 4.0 * 5 / 10, 1e-6);
  for (std::int32_t pid : {ld, cc, make, shell}) laptop().endProcess(pid);
  sampleAfter(2);
  EXPECT_FALSE(session("claude-code")->toolRunning);

  // The first session ends: the later one is now the kind's first.
  for (std::int32_t pid : {api, worker, mcp, npx}) laptop().endProcess(pid);
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("claude-code"));
  EXPECT_EQ(session("claude-code")->pids, std::vector<std::int32_t>{web});
}

TEST_F(WatcherTest, ADamagedProcessTableNeitherLoopsNorCrashes) {
  // Processes that are their own parents or each other's.
  laptop().fromJson(nlohmann::json::parse(R"({"processes": [
    {"pid": 1, "ppid": 0, "path": "/sbin/launchd"},
    {"pid": 10, "ppid": 11, "path": "/usr/local/bin/claude", "watts": 1},
    {"pid": 11, "ppid": 10, "path": "/bin/zsh"},
    {"pid": 12, "ppid": 12, "path": "/usr/local/bin/codex"},
    {"pid": 13, "ppid": 12, "path": "", "args": []},
    {"pid": 14, "ppid": 99999, "path": "/usr/local/bin/gemini", "cwd": ""}
  ]})"));
  sampleAfter(2);
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("claude-code", "codex", "gemini"));
  EXPECT_NEAR(session("claude-code")->watts, 1.0, 1e-6);
  EXPECT_FALSE(session("gemini")->project);
}

TEST_F(WatcherTest, WatchedAppsMatchByNameBundleIdPathOrExecutable) {
  watched_ = {{"Xcode"}, {"com.example.editor"}, {"/Applications/Tool.app/"}, {"ffmpeg"}, {"/opt/run/job"}};
  bundles_["/Applications/Editor Pro.app"] = BundleMeta{"Editor Pro", "com.example.editor"};
  const std::int32_t xcode = start("/Applications/Xcode.app/Contents/MacOS/Xcode");
  // A helper the system started for Xcode, not Xcode itself: still Xcode's.
  const std::int32_t build = start("/Applications/Xcode.app/Contents/Developer/usr/bin/xcodebuild");
  const std::int32_t clang = start("/usr/bin/clang", {}, build, 2.0);
  const std::int32_t xcodes = start("/Applications/Xcodes.app/Contents/MacOS/Xcodes");
  start("/Applications/Editor Pro.app/Contents/MacOS/Editor Pro");
  start("/Applications/Tool.app/Contents/MacOS/tool");
  start("/Applications/Toolbox.app/Contents/MacOS/tool");
  start("/usr/local/bin/ffmpeg", {"ffmpeg", "-i", "in.mov"});
  start("/usr/local/bin/node", {"node", "/srv/app.js"});
  start("/opt/run/job");
  start("/opt/run/jobs");
  start("/Applications/Claude.app/Contents/MacOS/Claude");
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("app:Xcode", "app:com.example.editor", "app:/Applications/Tool.app/", "app:ffmpeg",
                                 "app:/opt/run/job"));
  const AgentSession* x = session("app:Xcode");
  EXPECT_EQ(std::tuple(x->instances, x->pids), std::tuple(2, std::vector<std::int32_t>{xcode, build}));
  EXPECT_EQ(watcher_->protectedPids().count(clang), 1u);
  EXPECT_THAT(watcher_->protectedBundles(),
              IsSupersetOf({"/Applications/Xcode.app", "/Applications/Editor Pro.app", "com.example.editor"}));

  // The Claude app counts only when its kind is asked for; its bundle id
  // decides where the bundle tells one.
  extra_ = {claudeAppKind()};
  sampleAfter(2);
  ASSERT_NE(session("claude-app"), nullptr);
  const std::int32_t renamed = start("/Applications/Claude Beta.app/Contents/MacOS/Claude");
  bundles_["/Applications/Claude Beta.app"] = BundleMeta{"Claude", std::string(kClaudeAppBundle)};
  sampleAfter(2);
  EXPECT_EQ(session("claude-app")->instances, 2);
  EXPECT_THAT(session("claude-app")->pids, ::testing::Contains(renamed));

  // Over the same, unchanged list the sessions stand; an app watched
  // meanwhile is found in it all the same.
  const auto list = sim_->processes().listing(ProcessDetail::Identity);
  const auto before = ids();
  clock_.advance(2);
  watcher_->sample(list, watched_, requestsCount_, extra_, clock_.now());
  EXPECT_EQ(ids(), before);
  watched_.push_back({"Xcodes"});
  clock_.advance(2);
  watcher_->sample(list, watched_, requestsCount_, extra_, clock_.now());
  ASSERT_NE(session("app:Xcodes"), nullptr);
  EXPECT_EQ(session("app:Xcodes")->pids, std::vector<std::int32_t>{xcodes});

  // A process reparented keeps all but its parent, an interpreter that runs
  // another script all but its arguments: each shows.
  auto changed = list;
  const auto change = [&](auto&& edit) {
    for (ProcessInfo& p : changed) edit(p);
    clock_.advance(2);
    watcher_->sample(changed, watched_, requestsCount_, extra_, clock_.now());
  };
  change([&](ProcessInfo& p) { p.ppid = p.pid == clang ? 1 : p.ppid; });
  EXPECT_EQ(watcher_->protectedPids().count(clang), 0u);
  change([](ProcessInfo& p) {
    if (p.path == "/usr/local/bin/node") p.args = {"node", "/x/@anthropic-ai/claude-code/cli.js"};
  });
  EXPECT_NE(session("claude-code"), nullptr);
}

TEST_F(WatcherTest, SleepRequestsThatCountAndTheSixHourLimit) {
  const std::int32_t caffeinate = start("/usr/bin/caffeinate", {"caffeinate", "-i"});
  const std::int32_t player = start("/Applications/Player.app/Contents/MacOS/Player");
  const std::int32_t updater = start("/Applications/Acme Updater.app/Contents/MacOS/Acme Updater");
  const std::int32_t system = start("/System/Library/CoreServices/Backup.app/Contents/MacOS/backupd");
  const std::int32_t daemon = start("/usr/libexec/someday");
  const std::int32_t audio = start("/usr/sbin/coreaudiod");
  const std::int32_t music = start("/Applications/Music Box.app/Contents/MacOS/Music Box");
  const Time t0 = clock_.now();
  auto take = [&](std::int32_t pid, std::string type, std::string name, std::optional<double> since,
                  std::optional<std::int32_t> onBehalf = std::nullopt) {
    ASSERT_TRUE(laptop().addPowerAssertion({pid, "", std::move(type), std::move(name), onBehalf, since, {}}));
  };
  take(caffeinate, "PreventUserIdleSystemSleep", "caffeinate command-line tool", t0 - 60);
  take(player, "NoIdleSleepAssertion", "Playing", std::nullopt);
  take(player, "PreventSystemSleep", "Exporting", t0 - 30);
  take(player, "PreventSystemSleep", "Exporting more", t0 - 90);
  take(updater, "PreventUserIdleSystemSleep", "Updating", t0);
  take(system, "PreventUserIdleSystemSleep", "Backing up", t0);
  take(daemon, "PreventSystemSleep", "Working", t0);
  take(player, "PreventUserIdleDisplaySleep", "Screen on", t0);
  take(audio, "PreventUserIdleSystemSleep", "Audio", std::nullopt, music);

  const auto requests = watcher_->sleepRequests();
  std::vector<std::tuple<std::int32_t, std::string, std::optional<Time>, bool>> seen;
  for (const auto& b : requests) seen.emplace_back(b.pid, b.name, b.since, b.sinceUnknown);
  EXPECT_THAT(seen, ElementsAre(std::tuple(caffeinate, "caffeinate", std::optional<Time>(t0 - 60), false),
                                std::tuple(player, "Player", std::optional<Time>(t0 - 90), false),
                                std::tuple(music, "Music Box", std::nullopt, true)));

  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("request:caffeinate", "request:Player", "request:Music Box"));
  EXPECT_EQ(std::tuple(session("request:caffeinate")->detail, session("request:caffeinate")->lastActive),
            std::tuple("caffeinate command-line tool", std::optional<Time>(clock_.now())));
  EXPECT_EQ(watcher_->protectedPids().count(player), 1u);
  requestsCount_ = false;
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre());
  EXPECT_EQ(watcher_->blockers().size(), 3u) << "blockers are listed whether requests count or not";

  // Six hours after they were first seen, requests stop counting; one
  // released and taken again counts afresh.
  requestsCount_ = true;
  sampleAfter(kRequestLimitSeconds - 4);
  EXPECT_EQ(ids().size(), 3u);
  laptop().removePowerAssertion(caffeinate);
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("request:Player", "request:Music Box")) << "six hours to the second still count";
  take(caffeinate, "PreventUserIdleSystemSleep", "caffeinate command-line tool", clock_.now());
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre("request:caffeinate"));
  laptop().endProcess(caffeinate);
  sampleAfter(2);
  EXPECT_THAT(ids(), ElementsAre());
}

void touchAt(const std::string& path, Time t) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  if (!test::fileExists(path)) test::writeFile(path, "{}\n");
  const timespec times[2] = {{static_cast<time_t>(t), 0}, {static_cast<time_t>(t), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(WatcherTest, TranscriptsShowActivityOfAnIdleAgent) {
  const AgentKind& claude = builtInAgents().front();
  const std::string projects = home() + "/.claude/projects";
  EXPECT_FALSE(watcher_->transcriptsChanged(claude)) << "no folder, no activity";
  touchAt(projects + "/-home-me-api/a.jsonl", 1000);
  clock_.advance(kTranscriptSearchInterval);
  EXPECT_TRUE(watcher_->transcriptsChanged(claude)) << "a first transcript after a look at none";
  EXPECT_FALSE(watcher_->transcriptsChanged(claude));
  // The file an agent writes is noticed at once; a new file in a new folder
  // at the next full search.
  touchAt(projects + "/-home-me-api/a.jsonl", 2000);
  EXPECT_TRUE(watcher_->transcriptsChanged(claude));
  touchAt(projects + "/-home-me-web/sub/b.jsonl", 3000);
  EXPECT_FALSE(watcher_->transcriptsChanged(claude));
  clock_.advance(kTranscriptSearchInterval);
  EXPECT_TRUE(watcher_->transcriptsChanged(claude));
  // Five folder levels below the transcript folder are searched, not six.
  touchAt(projects + "/1/2/3/4/5/deep.jsonl", 4000);
  touchAt(projects + "/1/2/3/4/5/6/deeper.jsonl", 5000);
  clock_.advance(kTranscriptSearchInterval);
  EXPECT_TRUE(watcher_->transcriptsChanged(claude));
  touchAt(projects + "/1/2/3/4/5/deep.jsonl", 4500);
  clock_.advance(kTranscriptSearchInterval);
  EXPECT_TRUE(watcher_->transcriptsChanged(claude)) << "4500 is newer than 4000; 5000 was never seen";
  // An older file, or a folder link that loops, changes nothing.
  touchAt(projects + "/old.jsonl", 10);
  std::filesystem::create_directory_symlink(projects, projects + "/loop");
  clock_.advance(kTranscriptSearchInterval);
  EXPECT_FALSE(watcher_->transcriptsChanged(claude));

  // Given an idle Codex whose transcripts move: it is active.
  const std::int32_t codex = start("/usr/local/bin/codex", {"codex"});
  const std::string rollout = home() + "/.codex/sessions/2026/01/02/rollout-1.jsonl";
  touchAt(rollout, 1000);
  sampleAfter(2);
  touchAt(rollout, 1100);
  sampleAfter(2);
  EXPECT_EQ(session("codex")->lastActive, clock_.now());
  // A transcript written while the tree draws power is taken in then: once
  // the agent goes quiet it marks nothing more, so its quiet time starts.
  laptop().setProcessWatts(codex, 5.0);
  touchAt(rollout, 1200);
  sampleAfter(2);
  const Time busyAt = clock_.now();
  laptop().setProcessWatts(codex, 0.0);
  sampleAfter(2);
  EXPECT_EQ(session("codex")->lastActive, busyAt);
}

TEST_F(WatcherTest, AClaudeTranscriptMarksOnlyTheSessionsOfItsWorkingFolder) {
  EXPECT_EQ(claudeProjectFolder("/home/me/my_app.v2"), "-home-me-my-app-v2");
  EXPECT_EQ(claudeProjectFolder("/home/me/\xd0\x9f\xd1\x80 x"), "-home-me----x") << "one - per character";
  const std::string projects = home() + "/.claude/projects/";
  const auto first = start("/usr/local/bin/claude", {"claude"}, 1, 0.0, "/home/me/api");
  start("/usr/local/bin/claude", {"claude"}, 1, 0.0, "/home/me/web");
  touchAt(projects + "-home-me-api/s1.jsonl", 1000);
  touchAt(projects + "-home-me-web/s2.jsonl", 1000);
  sampleAfter(kTranscriptSearchInterval);
  sampleAfter(2);
  const std::string api = session("claude-code")->project == "api" ? "claude-code" : ids()[1];
  const std::string web = api == "claude-code" ? ids()[1] : "claude-code";

  touchAt(projects + "-home-me-api/s1.jsonl", 1100);
  sampleAfter(2);
  EXPECT_EQ(session(api)->lastActive, clock_.now());
  EXPECT_FALSE(session(web)->lastActive);
  // A transcript of a folder no live session works in: every session's.
  touchAt(projects + "-home-me-elsewhere/s3.jsonl", 1200);
  sampleAfter(kTranscriptSearchInterval);
  EXPECT_EQ(session(web)->lastActive, clock_.now());

  // Two sessions in one folder: the transcript named after one is its own.
  clock_.advance(100);
  const auto second = start("/usr/local/bin/claude", {"claude"}, 1, 0.0, "/home/me/api");
  watcher_->setSessionIds({{{first, laptop().process(first)->startMicros}, "s1"},
                           {{second, laptop().process(second)->startMicros}, "s4"}});
  touchAt(projects + "-home-me-api/s4.jsonl", 1300);
  sampleAfter(kTranscriptSearchInterval);
  touchAt(projects + "-home-me-api/s4.jsonl", 1400);
  sampleAfter(2);
  EXPECT_EQ(session("claude-code#" + std::to_string(second))->lastActive, clock_.now());
  EXPECT_NE(session(api)->lastActive, clock_.now());
}

TEST_F(WatcherTest, CpuTimeMakesATreeBusyWhereNoDrawIsMeasured) {
  ProcessInfo aider;
  aider.pid = 40;
  aider.path = "/usr/bin/aider";
  aider.startMicros = 1;
  // CPU time per 2-second sample, no energy: 1 % of a core is busy for a
  // 0.02 W agent, 0.1 % is not; the CPU time at 4 W a core stands in for the draw.
  const std::tuple<std::uint64_t, bool, double> steps[] = {
      {0, false, 0.0}, {20'000, true, 0.04}, {2'000, false, 0.004}};
  for (const auto& [cpuMicros, active, watts] : steps) {
    clock_.advance(2);
    aider.cpuMicros += cpuMicros;
    watcher_->sample({aider}, {}, false, {}, clock_.now());
    EXPECT_EQ(session("aider")->lastActive == clock_.now(), active) << cpuMicros;
    EXPECT_NEAR(session("aider")->watts, watts, 1e-9) << cpuMicros;
  }
}

}  // namespace
}  // namespace vigilo
