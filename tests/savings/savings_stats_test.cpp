#include <gtest/gtest.h>

#include "closedlid/closed_lid.h"
#include "savings/power_test.h"
#include "savings/savings.h"
#include "savings/savings_stats.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

constexpr Time kNow = 1'800'000'000.0;

SavingsStats::Session at(Time date, double wh = 1.0) {
  SavingsStats::Session s;
  s.date = date;
  s.whSaved = wh;
  s.whAvoided = wh / 2;
  s.closedMinutes = 10;
  s.sleptMinutes = 4;
  return s;
}

TEST(SavingsStatsTest, CapWindowAndTotals) {
  // Given 401 sessions, one per minute, the oldest first.
  SavingsStats stats;
  for (int i = 0; i < 401; ++i) stats.add(at(kNow - 401 * 60 + i * 60, 1.0));
  ASSERT_EQ(stats.sessions.size(), 400u);
  EXPECT_EQ(stats.sessions.front().date, kNow - 400 * 60) << "the first session is the one dropped";
  EXPECT_DOUBLE_EQ(stats.allTimeWhSaved, 401.0) << "the all-time totals keep what the list dropped";
  EXPECT_DOUBLE_EQ(stats.allTimeWhAvoided, 200.5);

  // The seven-day edge: exactly seven days ago is out, a second later is in.
  struct Case {
    double ago;
    int count;
  };
  for (Case c : {Case{kWeekSeconds, 0}, Case{kWeekSeconds - 1, 1}}) {
    SavingsStats s;
    s.add(at(kNow - c.ago, 2.0));
    const auto w = s.week(kNow);
    EXPECT_EQ(w.count, c.count) << c.ago;
    EXPECT_DOUBLE_EQ(w.wh, 2.0 * c.count);
    EXPECT_DOUBLE_EQ(w.whAvoided, 1.0 * c.count);
    EXPECT_DOUBLE_EQ(w.sleptMinutes, 4.0 * c.count);
  }
}

TEST(SavingsStatsTest, ClockChangesInsideAReceiptGiveNoDurations) {
  struct Case {
    const char* what;
    Time closed, opened;
    std::optional<Time> slept;
    std::optional<double> closedMinutes, sleptMinutes;
  };
  const Case cases[] = {
      {"plain", kNow, kNow + 3600, kNow + 1800, 60.0, 30.0},
      {"opened before it closed", kNow, kNow - 3600, std::nullopt, std::nullopt, std::nullopt},
      {"slept before it closed", kNow, kNow + 600, kNow - 100, 10.0, 0.0},
      {"never slept", kNow, kNow + 120, std::nullopt, 2.0, 0.0},
  };
  for (const Case& c : cases) {
    auto t = sessionTimes(c.closed, c.opened, c.slept);
    ASSERT_EQ(t.has_value(), c.closedMinutes.has_value()) << c.what;
    if (!t) continue;
    EXPECT_DOUBLE_EQ(t->closedMinutes, *c.closedMinutes) << c.what;
    EXPECT_DOUBLE_EQ(t->sleptMinutes, *c.sleptMinutes) << c.what;
  }
  // A session built from a backwards receipt counts nothing saved.
  Receipt r;
  r.closedAt = kNow;
  r.openedAt = kNow - 60;
  const auto s = Savings::sessionFrom(r, 5.0, 2.0);
  EXPECT_EQ(s.whSaved, 0);
  // A sleep of half an hour at a 2 W closed draw avoids 1 Wh.
  r.openedAt = kNow + 3600;
  r.sleptAt = kNow + 1800;
  EXPECT_DOUBLE_EQ(Savings::sessionFrom(r, 0.5, 2.0).whAvoided, 1.0);
}

TEST(SavingsStatsTest, FileRoundTripsAndDamageReadsLeniently) {
  TempDir dir;
  StatsStore store(dir.file("home"));
  SavingsStats stats;
  auto s = at(kNow, 1.5);
  s.startPercent = 80;
  s.endPercent = 71;
  s.agent = "Claude Code";
  stats.add(s);
  ASSERT_TRUE(store.save(stats));
  const std::string text = readFile(store.path());
  EXPECT_NE(text.find("\"date\": \"2027-01-15T08:00:00Z\""), std::string::npos) << text;
  EXPECT_LT(text.find("allTimeWhAvoided"), text.find("sessions")) << "keys are sorted";
  const SavingsStats back = store.load();
  ASSERT_EQ(back.sessions.size(), 1u);
  EXPECT_EQ(back.sessions[0], s);
  EXPECT_DOUBLE_EQ(back.allTimeWhSaved, 1.5);

  // Bad entries are skipped, bad figures read as 0, nothing throws.
  writeFile(store.path(), R"({"allTimeWhSaved": -3, "sessions": [{"date": "yesterday"}, 7,
      {"date": "2027-01-15T08:00:00Z", "whSaved": "lots", "startPercent": 400, "agent": 3}]})");
  const SavingsStats damaged = store.load();
  ASSERT_EQ(damaged.sessions.size(), 1u);
  EXPECT_EQ(damaged.sessions[0].whSaved, 0);
  EXPECT_FALSE(damaged.sessions[0].startPercent);
  EXPECT_EQ(damaged.allTimeWhSaved, 0);
  writeFile(store.path(), "{not json");
  EXPECT_TRUE(store.load().sessions.empty());
}

TEST(ReceiptLineTest, SaysHowLongItStayedAwakeAndWhatFollowed) {
  struct Case {
    double openedAfter;
    std::optional<double> askedAfter, sleptAfter;
    double offline;
    const char* line;
  };
  const Case cases[] = {
      {90 * 60, std::nullopt, std::nullopt, 0, "Stayed awake 1h 30m"},
      {60 * 60, 20 * 60, std::nullopt, 0, "Stayed awake 20 min, then asked it to sleep"},
      {200 * 60, 20 * 60, 21 * 60, 0, "Stayed awake 20 min, then slept 2h 59m"},
      {30 * 60, std::nullopt, std::nullopt, 5 * 60, "Stayed awake 30 min · no internet for 5 min"},
      {-60, std::nullopt, std::nullopt, 0, "Stayed awake"},
      {30 * 60, -600, std::nullopt, 0, "Stayed awake 30 min"},
  };
  for (const Case& c : cases) {
    Receipt r;
    r.closedAt = kNow;
    r.openedAt = kNow + c.openedAfter;
    if (c.askedAfter) r.sleepRequestedAt = kNow + *c.askedAfter;
    if (c.sleptAfter) r.sleptAt = kNow + *c.sleptAfter;
    r.offlineSeconds = c.offline;
    EXPECT_EQ(receiptLine(r), c.line);
  }
}

TEST(PowerTestJudgeTest, FourReadingsAndTheUnclearRule) {
  struct Case {
    std::array<double, 4> r;
    bool unclear;
    double total;
  };
  const Case cases[] = {
      {{10.0, 7.0, 10.2, 7.1}, false, 3.0},  // tolerance 1.085
      {{10.0, 7.0, 12.0, 11.5}, true, 0.0},  // tolerance 1.05, differences 3.0 and 0.5
      {{5.0, 4.8, 5.1, 4.5}, false, 0.2},    // the 0.6 W floor applies
      {{5.0, 5.2, 5.0, 5.1}, false, 0.0},    // savings that cost: reported as 0
  };
  for (const Case& c : cases) {
    const TotalResult t = judgeTotal(c.r);
    EXPECT_EQ(t.unclear, c.unclear) << c.r[0] << " " << c.r[2];
    EXPECT_NEAR(t.total, c.total, 1e-9);
    EXPECT_NEAR(t.closedWithout, (c.r[0] + c.r[2]) / 2, 1e-9);
  }
  EXPECT_EQ(measuredText(3.04), "Measured: Vigilo's savings are worth 3.0 W with the lid shut");
}

}  // namespace
}  // namespace vigilo::test
