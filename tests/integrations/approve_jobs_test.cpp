#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "commands/command_center.h"
#include "engine/engine_fixture.h"
#include "integrations/auto_approve.h"

namespace vigilo::test {
namespace {

// Given the engine on the simulated laptop with Approve everything plugged
// into its slow beat, and the person's agent settings in a home of its own.
class ApproveJobsTest : public EngineTest {
 protected:
  ApproveJobsTest() {
    std::filesystem::create_directories(places_.home + "/.codex");
    writeFile(places_.codexConfig(), "model = \"o3\"\n");
  }
  static AgentPlaces placesIn(const std::string& home) {
    AgentPlaces p;
    p.home = home;
    return p;
  }
  void start(AutoApprove::Ends ends, std::optional<double> hours = {}) {
    bool ok = false;
    approve_.turnOn(ends, hours, &ok);
    ASSERT_TRUE(ok);
    launch();
    engine().addSlowJobs(&jobs_);
  }

  AgentPlaces places_ = placesIn(dir_.file("person"));
  AutoApprove approve_{dir_.file("home"), places_, clock_};
  std::vector<std::string> told_;
  ApproveJobs jobs_{approve_, nullptr, [this](const std::string& s) { told_.push_back(s); }};
};

TEST_F(ApproveJobsTest, UntilDoneEndsWhenTheWorkItSawFinishes) {
  start(AutoApprove::Ends::Work);
  advance(30);
  EXPECT_TRUE(approve_.isOn()) << "no work seen yet";
  work_.reason = "Claude Code is working";
  advance(10);
  ASSERT_TRUE(engine().holding());
  EXPECT_EQ(approve_.status().endsLine, "Turns off when the work finishes");
  work_.reason.reset();
  advance(10);
  EXPECT_FALSE(approve_.isOn());
  EXPECT_EQ(told_, (std::vector<std::string>{"Approve everything is off: The work finished. Off. Your previous "
                                             "Claude Code and Codex settings are back."}));
  EXPECT_EQ(readFile(places_.codexConfig()), "model = \"o3\"\n");
  // Claude Code isn't set up in this home: its settings were never made up.
  EXPECT_FALSE(std::filesystem::exists(places_.home + "/.claude"));
}

TEST_F(ApproveJobsTest, ATimedOneEndsOnTheBeatAfterItsTimeAndAnyOneEndsAtQuit) {
  start(AutoApprove::Ends::Time, 1);
  advance(3590);
  EXPECT_TRUE(approve_.isOn());
  advance(20);
  EXPECT_FALSE(approve_.isOn());
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_EQ(told_[0].rfind("Approve everything is off: Its time was up.", 0), 0u) << told_[0];

  // With no agent running, quitting ends it too.
  bool ok = false;
  approve_.turnOn(AutoApprove::Ends::Manual, {}, &ok);
  ASSERT_TRUE(ok);
  engine().shutdown();
  EXPECT_FALSE(approve_.isOn());
  EXPECT_FALSE(files().exists("alive"));
}

TEST_F(ApproveJobsTest, RequestsTurnItOnAndOffAndStatusSaysHowItEnds) {
  launch();
  CommandCenter center(engine(), [] {});
  center.setApprove(&approve_);
  EXPECT_EQ(center.statusDictionary()["approve_everything"]["on"], false);
  EXPECT_EQ(center.handle("approve", {{"on", true}, {"ends", "soon"}})["error"], "ends: work, time or manual");
  auto on = center.handle("approve", {{"on", true}, {"ends", "work"}});
  ASSERT_EQ(on["ok"], true) << on;
  EXPECT_EQ(on["message"], "On. New Claude Code and Codex sessions won't ask.");
  auto a = center.statusDictionary()["approve_everything"];
  EXPECT_EQ(a["ends_line"], "Turns off when the next work finishes");
  EXPECT_EQ(a["ends"], "work");
  EXPECT_TRUE(a["problem"].is_null());
  auto off = center.handle("approve", {{"on", false}});
  EXPECT_EQ(off["message"], "Off. Your previous Claude Code and Codex settings are back.");
  EXPECT_EQ(off["approve_everything"]["on"], false);
}

}  // namespace
}  // namespace vigilo::test
