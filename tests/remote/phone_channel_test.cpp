#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/text.h"
#include "remote/crypto.h"
#include "remote/pair_command.h"
#include "remote/pairing.h"
#include "remote/phone_commands.h"
#include "remote/relay_client.h"
#include "test_support.h"

namespace vigilo {
namespace {

using json = nlohmann::json;
using test::TempDir;
using test::writeFile;

const std::string kPhoneDir = test::sourceDir(__FILE__) + "/phone";

std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs the phone's WebCrypto code under Node and gives its JSON answer.
json nodeKat(const std::string& key, const std::string& nonceHex, const std::string& plaintext,
             const std::string& toOpen = "") {
  std::string cmd = "node " + shellQuote(kPhoneDir + "/kat.mjs") + " " + shellQuote(key) + " " + shellQuote(nonceHex) +
                    " " + shellQuote(plaintext) + (toOpen.empty() ? "" : " " + shellQuote(toOpen));
  FILE* p = ::popen(cmd.c_str(), "r");
  if (!p) return nullptr;
  std::string out;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  ::pclose(p);
  return json::parse(out, nullptr, false);
}

std::string fromHex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

PhoneKey fixedKey() {
  PhoneKey k{};
  for (std::size_t i = 0; i < k.size(); ++i) k[i] = static_cast<std::uint8_t>(i * 7 + 3);
  return k;
}

TEST(PhoneCryptoTest, TopicsAndBoxesMatchAnIndependentWebCryptoPhone) {
  // Given a fixed key and nonce, Node's crypto derives the same topics and
  // seals the same box; each side opens what the other sealed.
  const PhoneKey key = fixedKey();
  const std::string nonceHex = "000102030405060708090a0b";
  const std::string plain = R"({"n":"abc-1","cmd":"panel","args":{},"t":1800000000,"dev":"Pixel ✓"})";
  const std::string cmdTopic = topicFor(key, kCommandLabel);
  const std::string replyTopic = topicFor(key, kReplyLabel);
  auto ours = sealWithNonce(plain, cmdTopic, key, fromHex(nonceHex));
  ASSERT_TRUE(ours);
  auto replyBox = seal(R"({"ok":true,"re":"abc-1"})", replyTopic, key);
  ASSERT_TRUE(replyBox);

  json node = nodeKat(encodeKey(key), nonceHex, plain, *replyBox);
  ASSERT_TRUE(node.is_object()) << "node did not answer";
  EXPECT_EQ(node["cmd"], cmdTopic);
  EXPECT_EQ(node["reply"], replyTopic);
  EXPECT_EQ(node["sealed"], *ours);
  EXPECT_EQ(node["opened"], R"({"ok":true,"re":"abc-1"})");
  EXPECT_EQ(open(node["sealed"].get<std::string>(), cmdTopic, key), plain);
  EXPECT_EQ(cmdTopic.size(), 7u + 24u);
  EXPECT_NE(cmdTopic, replyTopic);
}

TEST(PhoneCryptoTest, DamagedMovedOrForeignBoxesDoNotOpen) {
  const PhoneKey key = fixedKey();
  PhoneKey other = key;
  other[0] ^= 1;
  const std::string cmdTopic = topicFor(key, kCommandLabel);
  const std::string box = *seal("hello", cmdTopic, key);
  std::string flipped = box;
  flipped[20] = flipped[20] == 'A' ? 'B' : 'A';
  std::string padded = box;
  while (padded.size() % 4 != 0) padded += '=';
  std::string classic = box;
  for (char& c : classic) c = c == '-' ? '+' : c == '_' ? '/' : c;

  EXPECT_EQ(open(padded, cmdTopic, key), "hello");
  EXPECT_EQ(open(classic, cmdTopic, key), "hello");
  EXPECT_FALSE(open(flipped, cmdTopic, key));
  EXPECT_FALSE(open(box, topicFor(key, kReplyLabel), key)) << "moved to the other topic";
  EXPECT_FALSE(open(box, cmdTopic, other));
  EXPECT_FALSE(open(box.substr(0, 36), cmdTopic, key)) << "27 bytes: shorter than nonce and tag";
  EXPECT_FALSE(open("not base64 at all!", cmdTopic, key));
  EXPECT_FALSE(open("", cmdTopic, key));
  // An empty plaintext still makes a full box that opens.
  EXPECT_EQ(open(*seal("", cmdTopic, key), cmdTopic, key), "");
}

TEST(PhoneCryptoTest, KeysRoundTripOnlyAtThirtyTwoBytes) {
  auto key = newPhoneKey();
  ASSERT_TRUE(key);
  const std::string text = encodeKey(*key);
  EXPECT_EQ(text.size(), 43u);
  EXPECT_EQ(text.find_first_of("+/="), std::string::npos);
  EXPECT_EQ(decodeKey(text), key);
  EXPECT_FALSE(decodeKey(text.substr(0, 42)));
  EXPECT_FALSE(decodeKey(text + "AAAA"));
}

TEST(PairingTest, PairRevokeAndLinksFollowTheStoredSettings) {
  TempDir dir;
  StateFiles files(dir.path());
  RemoteSettings s = RemoteSettings::load(files);
  EXPECT_FALSE(s.active());
  for (std::size_t i = 0; i < kMaxPhones; ++i) ASSERT_TRUE(s.pairNewPhone(files, 100).phone);
  auto refused = s.pairNewPhone(files, 100);
  EXPECT_FALSE(refused.phone);
  EXPECT_EQ(refused.error, "5 phones are paired; revoke one first");

  RemoteSettings again = RemoteSettings::load(files);
  ASSERT_EQ(again.phones.size(), kMaxPhones);
  EXPECT_EQ(again.phones[0].name, "New phone");
  EXPECT_EQ(again.usable().size(), kMaxPhones);
  EXPECT_EQ(std::filesystem::status(dir.file("remote.json")).permissions() & std::filesystem::perms::group_read,
            std::filesystem::perms::none);
  EXPECT_EQ(again.pairingLink(again.phones[0]), std::string(kDefaultPageBase) + "#k=" + again.phones[0].key);
  again.relay = "http://127.0.0.1:8080";
  EXPECT_EQ(again.pairingLink(again.phones[0]),
            std::string(kDefaultPageBase) + "#k=" + again.phones[0].key + "&r=http%3A%2F%2F127.0.0.1%3A8080");

  EXPECT_TRUE(again.revoke(again.phones[1].id));
  EXPECT_FALSE(again.revoke("nope"));
  EXPECT_EQ(again.phones.size(), kMaxPhones - 1);
  again.phones[0].key = "short";  // a damaged key is not usable, the rest are
  EXPECT_EQ(again.usable().size(), kMaxPhones - 2);

  writeFile(dir.file("remote.json"), "{\"phones\": [42, {\"id\": 1}], \"relay\": \"ftp://x\"");
  RemoteSettings broken = RemoteSettings::load(files);
  EXPECT_TRUE(broken.phones.empty());
  EXPECT_EQ(broken.relay, kDefaultRelay);
}

TEST(PairingTest, TheReadPointMovesOnlyForwardAndOnlyToTimesThatCanBe) {
  const Time now = 1'800'000'000;
  TempDir dir;
  StateFiles files(dir.path());
  RemoteSettings s;
  EXPECT_EQ(s.resumePoint(now, kWakeMaxAge), now - kWakeMaxAge);
  s.noteRead(now - 100, "a", now);
  s.noteRead(now - 100, "b", now);
  s.noteRead(now - 200, "older", now);
  s.noteRead(0, "no-time", now);
  ASSERT_TRUE(s.save(files));
  RemoteSettings again = RemoteSettings::load(files);
  EXPECT_EQ(again.resumePoint(now, kWakeMaxAge), now - 100);
  EXPECT_TRUE(again.wasRead(now - 100, "a") && again.wasRead(now - 100, "b"));
  EXPECT_FALSE(again.wasRead(now - 100, "c"));
  EXPECT_FALSE(again.wasRead(now - 200, "older"));
  // A point no relay could have given (stored by a version that believed
  // the relay's clock) neither sets where reading starts nor blocks the next.
  for (double stored : {1e300, -5.0, now + 3600}) {
    again.readUntil = stored;
    EXPECT_EQ(again.resumePoint(now, kWakeMaxAge), now - kWakeMaxAge) << stored;
    again.noteRead(now - 10, "x", now);
    EXPECT_EQ(again.readUntil, now - 10) << stored;
  }
}

TEST(PhoneNameTest, NamesAreCutWholeAndReachTheTerminalDefused) {
  // A surrogate and a code point past U+10FFFF: every byte is bad.
  std::string sevenBad;
  for (int i = 0; i < 7; ++i) sevenBad += "\uFFFD";
  struct Case {
    std::string name;
    std::size_t max;
    std::string cut;
    std::string shown;
  } cases[] = {
      {"Pixel 8", 64, "Pixel 8", "Pixel 8"},
      {"a手b", 4, "a…", "a手b"},
      {"手手", 2, "", "手手"},
      {"bad\xff\xc0!", 64, "bad\uFFFD\uFFFD!", "bad\uFFFD\uFFFD!"},
      {"cut \xe6\x89", 64, "cut \uFFFD\uFFFD", "cut \uFFFD\uFFFD"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", 64, sevenBad, sevenBad},
      {"\x1b[2Jwiped", 64, "\x1b[2Jwiped", "\\x1b[2Jwiped"},
      {"tab\there\x7f", 64, "tab\there\x7f", "tab\\x09here\\x7f"},
      {"\xc2\x9b" "csi", 64, "\xc2\x9b" "csi", "\\x9bcsi"},
      {"evil\u202Etxt.exe", 64, "evil\u202Etxt.exe", "evil\\u202etxt.exe"},
  };
  for (const Case& c : cases) {
    const std::string cut = cutUtf8(c.name, c.max);
    EXPECT_LE(cut.size(), c.max) << c.name;
    EXPECT_EQ(validUtf8(cut), cut) << c.name;
    EXPECT_EQ(cut, c.cut) << c.name;
    EXPECT_EQ(terminalSafe(c.name), c.shown) << c.name;
  }
}

TEST(RelayLineTest, LinesOfTheWrongShapeAreSkippedAndAbsurdTimesAreNoPlaceToResume) {
  const double now = 1'800'000'000;
  using Kind = RelayLine::Kind;
  struct Case {
    std::string line;
    Kind kind;
    double time;
  } cases[] = {
      {R"({"event":"message","topic":"t","message":"box","id":"a1","time":1799999990})", Kind::Message, 1799999990},
      {R"({"event":"message","message":"box","time":1800000059})", Kind::Message, 1800000059},
      {R"({"event":"open","topic":"t"})", Kind::Open, 0},
      {R"({"event":7,"topic":"t","message":"box"})", Kind::Other, 0},
      {R"({"event":"message","topic":["t"],"message":"box"})", Kind::Other, 0},
      {R"({"event":"message","topic":"t","message":42})", Kind::Other, 0},
      {R"({"event":"message","topic":"t","message":"box","time":"soon"})", Kind::Message, 0},
      {R"({"event":"message","topic":"t","message":"box","time":-5})", Kind::Message, 0},
      {R"({"event":"message","topic":"t","message":"box","time":1e300})", Kind::Message, 0},
      {R"({"event":"message","topic":"t","message":"box","time":1800003600})", Kind::Message, 0},
      {"not json", Kind::Other, 0},
      {std::string(10000, '[') + std::string(10000, ']'), Kind::Other, 0},
  };
  for (const Case& c : cases) {
    const RelayLine l = readRelayLine(c.line, "t", now);
    EXPECT_EQ(l.kind, c.kind) << c.line.substr(0, 80);
    if (l.kind != Kind::Message) continue;
    EXPECT_EQ(l.message.topic, "t");
    EXPECT_EQ(l.message.message, "box");
    EXPECT_EQ(l.message.time, c.time) << c.line;
  }
}

// A phone sending through the channel to the handler, with a recording
// command center behind it.
class PhoneCommandsTest : public ::testing::Test {
 protected:
  PhoneCommandsTest()
      : files_(dir_.path()), commands_(&files_, [this](const std::string& cmd, const json& args) {
          ran_.push_back(cmd);
          lastArgs_ = args;
          return json{
              {"ok", true},
              {"status", "Idle"},
              {"config_path", "/home/x/secret"},
              {"battery", {{"percent", 80}, {"watts", 6}, {"on_power", false}, {"charging", false}, {"cycles", 9}}}};
        }) {
    settings_.pairNewPhone(files_, 0);
    phone_ = settings_.usable().at(0);
  }

  // Sends `command` (sealed on `topic`, the phone's command topic by default)
  // and gives the opened reply, or null when nothing came back.
  json send(json command, Time now, std::string topic = "") {
    if (topic.empty()) topic = phone_.commandTopic;
    auto box = seal(command.dump(), topic, phone_.key);
    auto outcome = commands_.handle(settings_.usable(), phone_.commandTopic, *box, now);
    if (!outcome) return nullptr;
    EXPECT_EQ(outcome->replyTopic, phone_.replyTopic);
    auto plain = open(outcome->sealedReply, phone_.replyTopic, phone_.key);
    return plain ? json::parse(*plain) : json("unopenable");
  }
  json cmd(const std::string& id, const std::string& name, double t) {
    return {{"n", id}, {"cmd", name}, {"args", json::object()}, {"t", t}};
  }

  TempDir dir_;
  StateFiles files_;
  RemoteSettings settings_;
  UsablePhone phone_;
  std::vector<std::string> ran_;
  json lastArgs_;
  PhoneCommands commands_;
};

TEST_F(PhoneCommandsTest, RefusalsHaveTheirExactTextsAndRunNothing) {
  const Time now = 1'800'000'000;
  struct Case {
    json command;
    std::string error;
  } cases[] = {
      {cmd("", "panel", now), "bad id"},
      {cmd(std::string(65, 'a'), "panel", now), "bad id"},
      {cmd("future-61", "panel", now + 61), "too old or from the future (check the phone's clock)"},
      {cmd("old", "panel", now - kCommandMaxAge - 1), "too old or from the future (check the phone's clock)"},
      {cmd("old-wake", "wake", now - kWakeMaxAge - 1), "too old or from the future (check the phone's clock)"},
      {json{{"n", "no-t"}, {"cmd", "panel"}}, "too old or from the future (check the phone's clock)"},
      {cmd("hold-1", "hold", now), "hold isn't allowed from the phone"},
      {cmd("quit-1", "quit", now), "quit isn't allowed from the phone"},
      {cmd("release-1", "release", now), "release isn't allowed from the phone"},
  };
  for (const Case& c : cases) {
    json reply = send(c.command, now);
    EXPECT_EQ(reply["ok"], false) << c.command.dump();
    EXPECT_EQ(reply["error"], c.error) << c.command.dump();
    EXPECT_EQ(reply["t"], now);
  }
  EXPECT_TRUE(ran_.empty());
}

TEST_F(PhoneCommandsTest, AcceptedCommandsRunOnceWithTheirAgeAndATrimmedReply) {
  const Time now = 1'800'000'000;
  json reply = send(cmd("fresh-59", "panel", now + 59), now);
  EXPECT_EQ(reply["ok"], true);
  EXPECT_EQ(reply["re"], "fresh-59");
  EXPECT_EQ(reply["status"], "Idle");
  EXPECT_FALSE(reply.contains("config_path")) << "paths stay on the machine";
  EXPECT_EQ(reply["battery"], (json{{"percent", 80}, {"watts", 6}, {"on_power", false}, {"charging", false}}));
  EXPECT_EQ(send(cmd("wake-late", "wake", now - 3 * 3600 + 10), now)["ok"], true);
  EXPECT_EQ(lastArgs_["_age"], 3 * 3600 - 10);

  json again = send(cmd("fresh-59", "panel", now), now + 1);
  EXPECT_EQ(again["error"], "already handled");
  EXPECT_EQ(ran_, (std::vector<std::string>{"panel", "wake"}));

  // The seen ids outlive the app: a new handler over the same folder refuses
  // the replay too.
  PhoneCommands restarted(&files_, [](const std::string&, const json&) { return json{{"ok", true}}; });
  auto box = seal(cmd("fresh-59", "panel", now).dump(), phone_.commandTopic, phone_.key);
  auto outcome = restarted.handle(settings_.usable(), phone_.commandTopic, *box, now + 2);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->reply["error"], "already handled");
  EXPECT_FALSE(outcome->ran);
}

TEST_F(PhoneCommandsTest, TheThirtiethCommandInAMinuteWaits) {
  const Time now = 1'800'000'000;
  for (int i = 0; i < 29; ++i) ASSERT_EQ(send(cmd("c" + std::to_string(i), "panel", now), now + i)["ok"], true) << i;
  EXPECT_EQ(send(cmd("c29", "panel", now + 29), now + 29)["error"], "too many commands, wait a minute");
  // A minute after the first, there is room again.
  EXPECT_EQ(send(cmd("c30", "panel", now + 60), now + 60)["ok"], true);
}

TEST_F(PhoneCommandsTest, MessagesThatAreNotOursGetNoReply) {
  const Time now = 1'800'000'000;
  // Sealed for the reply topic but posted on the command topic: the topic is
  // authenticated, so it does not open and nobody answers.
  EXPECT_TRUE(send(cmd("moved", "panel", now), now, phone_.replyTopic).is_null());
  EXPECT_FALSE(commands_.handle(settings_.usable(), phone_.commandTopic, "garbage", now));
  EXPECT_FALSE(commands_.handle(settings_.usable(), "vigilo-elsewhere", "garbage", now));
  // A box that opens but isn't JSON is answered, as a refusal.
  auto box = seal("not json", phone_.commandTopic, phone_.key);
  auto outcome = commands_.handle(settings_.usable(), phone_.commandTopic, *box, now);
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->reply["error"], "bad id");
  EXPECT_TRUE(ran_.empty());
}

TEST_F(PhoneCommandsTest, HostileTextIsCutOrRefusedAndEverythingStaysWritable) {
  const Time now = 1'800'000'000;
  std::string cjk, cyrillic = "a", longCmd;
  for (int i = 0; i < 25; ++i) cjk += "手机";
  for (int i = 0; i < 40; ++i) cyrillic += "Ж";
  for (int i = 0; i < 40; ++i) longCmd += "命";
  const std::string deep = std::string(10000, '[') + std::string(10000, ']');
  const auto plain = [&](const std::string& id, const std::string& cmd, const std::string& args,
                         const std::string& dev) {
    return R"({"n":")" + id + R"(","cmd":")" + cmd + R"(","t":)" + std::to_string(static_cast<long long>(now)) +
           R"(,"args":)" + args + R"(,"dev":")" + dev + "\"}";
  };
  struct Case {
    std::string plaintext;
    std::string error;  // a part of it; empty: it runs
  } cases[] = {
      {plain("cjk-name", "panel", "{}", cjk), ""},
      {plain("cyrillic-name", "panel", "{}", cyrillic), ""},
      {plain("long-cmd", longCmd, "{}", "x"), " isn't allowed from the phone"},
      {plain("deep", "set", R"({"key":"mode","value":)" + deep + "}", "x"),
       "the command is nested too deeply (at most 8 levels)"},
  };
  for (const Case& c : cases) {
    ran_.clear();
    auto outcome = commands_.handle(settings_.usable(), phone_.commandTopic,
                                    *seal(c.plaintext, phone_.commandTopic, phone_.key), now);
    ASSERT_TRUE(outcome) << c.plaintext.substr(0, 80);
    const json reply = json::parse(*open(outcome->sealedReply, phone_.replyTopic, phone_.key));
    EXPECT_EQ(reply["ok"], c.error.empty()) << reply;
    EXPECT_EQ(ran_.empty(), !c.error.empty());
    if (!c.error.empty()) {
      EXPECT_NE(reply.value("error", "").find(c.error), std::string::npos) << reply;
    }
    ASSERT_TRUE(outcome->deviceName);
    const std::string& name = *outcome->deviceName;
    EXPECT_LE(name.size(), kMaxDeviceName);
    EXPECT_EQ(validUtf8(name), name);
    RemoteSettings named = settings_;
    named.phones[0].name = name;
    ASSERT_TRUE(named.save(files_));
    EXPECT_EQ(RemoteSettings::load(files_).phones[0].name, name);
  }
}

TEST_F(PhoneCommandsTest, AnAnswerTooLongForTheRelayIsSaidToBe) {
  PhoneCommands chatty(&files_, [](const std::string&, const json&) {
    return json{{"ok", true}, {"status", std::string(4000, 's')}};
  });
  auto box = seal(cmd("long", "panel", 1'800'000'000).dump(), phone_.commandTopic, phone_.key);
  auto outcome = chatty.handle(settings_.usable(), phone_.commandTopic, *box, 1'800'000'000);
  ASSERT_TRUE(outcome);
  EXPECT_LE(outcome->sealedReply.size(), kMaxRelayBody);
  EXPECT_EQ(json::parse(*open(outcome->sealedReply, phone_.replyTopic, phone_.key))["error"],
            "the answer is too long for the relay");
}

TEST(PhoneReplyTest, SchemaKeepsOnlyWhatThePhoneShows) {
  json schema = {{"ok", true},
                 {"status", "Idle"},
                 {"path", "/home/x/.local/share/vigilo/config.json"},
                 {"settings",
                  {{{"key", "preset"},
                    {"type", "string"},
                    {"allowed", {"a", "b"}},
                    {"value", "a"},
                    {"description", "long text"},
                    {"topic", "t"}}}}};
  json trimmed = phoneReply(schema, "schema");
  EXPECT_EQ(trimmed,
            (json{{"ok", true},
                  {"status", "Idle"},
                  {"settings", {{{"key", "preset"}, {"type", "string"}, {"allowed", {"a", "b"}}, {"value", "a"}}}}}));

  // The power figures keep the top apps by name and watts; their processes
  // and bundle ids stay on the machine.
  json power = {{"ok", true}, {"hours_left_closed", 9.5}, {"saving_now_watts", 1.2}, {"apps", json::array()}};
  for (int i = 0; i < 7; ++i) {
    power["apps"].push_back({{"name", "App " + std::to_string(i)},
                             {"bundle_id", "org.example.app"},
                             {"watts", 7.0 - i},
                             {"pids", {100 + i}},
                             {"estimated", i == 1}});
  }
  json phone = phoneReply(power, "power");
  EXPECT_EQ(phone["hours_left_closed"], 9.5);
  EXPECT_EQ(phone["saving_now_watts"], 1.2);
  ASSERT_EQ(phone["apps"].size(), 5u);
  EXPECT_EQ(phone["apps"][1], (json{{"name", "App 1"}, {"watts", 6.0}, {"estimated", true}}));
}

// The modules of a terminal QR code as a terminal draws them: each upper
// half block is two modules, the upper in the foreground colour and the
// lower in the background colour. 1 is black, 0 white, -1 a colour left to
// the terminal's theme (anything but a block drawn in explicit colours).
std::vector<std::vector<int>> drawnModules(const std::string& qr) {
  std::vector<std::vector<int>> rows(2);
  int fg = -1, bg = -1;
  auto cube = [](int n) { return n == 16 ? 1 : n == 231 ? 0 : -1; };
  for (std::size_t i = 0; i < qr.size();) {
    if (qr.compare(i, 2, "\x1b[") == 0) {
      const std::size_t end = qr.find('m', i);
      std::vector<int> codes;
      std::string params = qr.substr(i + 2, end - i - 2) + ";";
      for (std::size_t at = 0, semi; (semi = params.find(';', at)) != std::string::npos; at = semi + 1) {
        codes.push_back(std::atoi(params.substr(at, semi - at).c_str()));
      }
      for (std::size_t c = 0; c < codes.size(); ++c) {
        if (codes[c] == 0) fg = bg = -1;
        if ((codes[c] == 38 || codes[c] == 48) && c + 2 < codes.size() && codes[c + 1] == 5) {
          (codes[c] == 38 ? fg : bg) = cube(codes[c + 2]);
          c += 2;
        }
      }
      i = end + 1;
    } else if (qr[i] == '\n') {
      rows.resize(rows.size() + 2);
      ++i;
    } else {
      const bool upperHalf = qr.compare(i, 3, "▀") == 0;
      rows[rows.size() - 2].push_back(upperHalf ? fg : -1);
      rows[rows.size() - 1].push_back(upperHalf ? bg : -1);
      i += (static_cast<unsigned char>(qr[i]) >= 0xe0) ? 3 : 1;
    }
  }
  rows.resize(rows.size() - 2);
  return rows;
}

TEST(PairQrTest, TheCodeIsBlackOnWhiteWithAQuietZoneWhateverTheTerminalsColours) {
  for (const std::string link : {"https://vigilo.example/p#k=" + std::string(43, 'A'), std::string("x")}) {
    const std::string qr = terminalQrCode(link);
    const auto m = drawnModules(qr);
    ASSERT_GT(m.size(), 20u);
    const int width = static_cast<int>(m[0].size());
    const int n = width - 8;  // the code between quiet zones of four modules
    ASSERT_GE(n, 21);
    for (std::size_t y = 0; y < m.size(); ++y) {
      ASSERT_EQ(static_cast<int>(m[y].size()), width);
      for (int x = 0; x < width; ++x) {
        ASSERT_NE(m[y][x], -1) << "module " << x << "," << y << " is in the terminal's own colour";
        const bool quiet = x < 4 || y < 4 || x >= 4 + n || static_cast<int>(y) >= 4 + n;
        if (quiet) ASSERT_EQ(m[y][x], 0) << "the quiet zone at " << x << "," << y;
      }
    }
    // The three finder patterns, dark ring, light ring, dark core, where a
    // scanner looks for them.
    for (auto [ox, oy] : {std::pair{4, 4}, std::pair{4 + n - 7, 4}, std::pair{4, 4 + n - 7}}) {
      for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 7; ++x) {
          const int ring = std::min(std::min(x, y), std::min(6 - x, 6 - y));
          EXPECT_EQ(m[oy + y][ox + x], ring == 1 ? 0 : 1) << "finder at " << ox << "," << oy;
        }
      }
    }
    // No line leaves its colours to what the terminal prints next.
    for (std::size_t end = qr.find('\n'); end != std::string::npos; end = qr.find('\n', end + 1)) {
      EXPECT_EQ(qr.compare(end - 4, 4, "\x1b[0m"), 0);
    }
  }
}

}  // namespace
}  // namespace vigilo
