#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>

#include "e2e/piped_process.h"
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

// Runs the phone's WebCrypto code under Node and gives its JSON answer.
json nodeKat(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/usr/bin/env", "node", kPhoneDir + "/kat.mjs"};
  argv.insert(argv.end(), args.begin(), args.end());
  test::PipedProcess node(argv, {}, "/dev/null");
  node.closeInput();
  return json::parse(node.readToEnd(std::chrono::seconds(30)), nullptr, false);
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
  auto ours = sealWithNonce(plain, cmdTopic, key, fromHex(nonceHex));
  auto replyBox = seal(R"({"ok":true,"re":"abc-1"})", topicFor(key, kReplyLabel), key);
  ASSERT_TRUE(ours && replyBox);

  json node = nodeKat({encodeKey(key), nonceHex, plain, *replyBox});
  ASSERT_TRUE(node.is_object()) << "node did not answer";
  EXPECT_EQ(node["cmd"], cmdTopic);
  EXPECT_EQ(node["sealed"], *ours);
  EXPECT_EQ(node["opened"], R"({"ok":true,"re":"abc-1"})");
  EXPECT_EQ(open(node["sealed"].get<std::string>(), cmdTopic, key), plain);
}

TEST(PhoneCryptoTest, DamagedMovedOrForeignBoxesAndKeysDoNotOpen) {
  const PhoneKey key = fixedKey();
  PhoneKey other = key;
  other[0] ^= 1;
  const std::string cmdTopic = topicFor(key, kCommandLabel);
  const std::string box = *seal("hello", cmdTopic, key);
  std::string flipped = box, classic = box;
  flipped[20] = flipped[20] == 'A' ? 'B' : 'A';
  for (char& c : classic) c = c == '-' ? '+' : c == '_' ? '/' : c;

  EXPECT_EQ(open(classic, cmdTopic, key), "hello");
  const std::tuple<std::string, std::string, PhoneKey> refused[] = {
      {flipped, cmdTopic, key},
      {box, topicFor(key, kReplyLabel), key},  // moved to the other topic
      {box, cmdTopic, other},
      {box.substr(0, 36), cmdTopic, key},  // 27 bytes: shorter than nonce and tag
  };
  for (const auto& [sealed, topic, k] : refused) EXPECT_FALSE(open(sealed, topic, k)) << sealed;

  auto fresh = newPhoneKey();
  ASSERT_TRUE(fresh);
  const std::string text = encodeKey(*fresh);
  EXPECT_EQ(text.find_first_of("+/="), std::string::npos);
  EXPECT_EQ(decodeKey(text), fresh);
  EXPECT_FALSE(decodeKey(text.substr(0, 42)));
}

TEST(PairingTest, PairRevokeAndLinksFollowTheStoredSettings) {
  TempDir dir;
  StateFiles files(dir.path());
  RemoteSettings s = RemoteSettings::load(files);
  EXPECT_FALSE(s.active());
  for (std::size_t i = 0; i < kMaxPhones; ++i) ASSERT_TRUE(s.pairNewPhone(files, 100).phone);
  EXPECT_EQ(s.pairNewPhone(files, 100).error, "5 phones are paired; revoke one first");

  RemoteSettings again = RemoteSettings::load(files);
  ASSERT_EQ(again.usable().size(), kMaxPhones);
  EXPECT_EQ(std::filesystem::status(dir.file("remote.json")).permissions() & std::filesystem::perms::group_read,
            std::filesystem::perms::none);
  EXPECT_TRUE(again.revoke(again.phones[1].id));
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
  ASSERT_TRUE(s.save(files));
  RemoteSettings again = RemoteSettings::load(files);
  EXPECT_EQ(again.resumePoint(now, kWakeMaxAge), now - 100);
  EXPECT_TRUE(again.wasRead(now - 100, "a") && again.wasRead(now - 100, "b"));
  EXPECT_FALSE(again.wasRead(now - 200, "older"));
  // A point no relay could have given (stored by a version that believed
  // the relay's clock) neither sets where reading starts nor blocks the next.
  for (double stored : {1e300, now + 3600}) {
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
  const std::tuple<std::string, std::size_t, std::string, std::string> cases[] = {
      // name, the most bytes kept, what is kept, what a terminal is shown
      {"a手b", 4, "a…", "a手b"},
      {"手手", 2, "", "手手"},
      {"cut \xe6\x89", 64, "cut \uFFFD\uFFFD", "cut \uFFFD\uFFFD"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", 64, sevenBad, sevenBad},
      {"tab\there\x7f", 64, "tab\there\x7f", "tab\\x09here\\x7f"},
      {"\xc2\x9b" "csi", 64, "\xc2\x9b" "csi", "\\x9bcsi"},
      {"evil\u202Etxt.exe", 64, "evil\u202Etxt.exe", "evil\\u202etxt.exe"},
  };
  for (const auto& [name, max, cut, shown] : cases) {
    EXPECT_EQ(cutUtf8(name, max), cut) << name;
    EXPECT_EQ(terminalSafe(name), shown) << name;
  }
}

TEST(RelayLineTest, LinesOfTheWrongShapeAreSkippedAndAbsurdTimesAreNoPlaceToResume) {
  const double now = 1'800'000'000;
  using Kind = RelayLine::Kind;
  const std::tuple<std::string, Kind, double> cases[] = {
      {R"({"event":"message","message":"box","time":1800000059})", Kind::Message, 1800000059},
      {R"({"event":"open","topic":"t"})", Kind::Open, 0},
      {R"({"event":"message","topic":["t"],"message":"box"})", Kind::Other, 0},
      {R"({"event":"message","topic":"t","message":"box","time":"soon"})", Kind::Message, 0},
      {R"({"event":"message","topic":"t","message":"box","time":-5})", Kind::Message, 0},
      {R"({"event":"message","topic":"t","message":"box","time":1800003600})", Kind::Message, 0},
      {std::string(10000, '[') + std::string(10000, ']'), Kind::Other, 0},
  };
  for (const auto& [line, kind, time] : cases) {
    const RelayLine l = readRelayLine(line, "t", now);
    EXPECT_EQ(l.kind, kind) << line.substr(0, 80);
    if (l.kind != Kind::Message) continue;
    EXPECT_EQ(l.message.topic, "t");
    EXPECT_EQ(l.message.message, "box");
    EXPECT_EQ(l.message.time, time) << line;
  }
}

// A phone sending through the channel to the handler, with a recording
// command center behind it.
class PhoneCommandsTest : public ::testing::Test {
 protected:
  PhoneCommandsTest() : files_(dir_.path()), commands_(&files_, recorder()) {
    settings_.pairNewPhone(files_, 0);
    phone_ = settings_.usable().at(0);
  }
  PhoneCommands::Runner recorder(std::size_t statusBytes = 4) {
    return [this, statusBytes](const std::string& cmd, const json& args) {
      ran_.push_back(cmd);
      lastArgs_ = args;
      return json{
          {"ok", true},
          {"status", std::string(statusBytes, 's')},
          {"config_path", "/home/x/secret"},
          {"battery", {{"percent", 80}, {"watts", 6}, {"on_power", false}, {"charging", false}, {"cycles", 9}}}};
    };
  }

  // Sends `plaintext` sealed on `topic` (the phone's command topic by
  // default) through `via`, and gives the opened reply, or null when nothing
  // came back. Every reply fits one relay message.
  json sendPlain(const std::string& plaintext, Time now, const std::string& topic = "",
                 PhoneCommands* via = nullptr) {
    auto box = seal(plaintext, topic.empty() ? phone_.commandTopic : topic, phone_.key);
    auto outcome = (via ? via : &commands_)->handle(settings_.usable(), phone_.commandTopic, *box, now);
    if (!outcome) return nullptr;
    deviceName_ = outcome->deviceName;
    EXPECT_EQ(outcome->replyTopic, phone_.replyTopic);
    EXPECT_LE(outcome->sealedReply.size(), kMaxRelayBody);
    auto plain = open(outcome->sealedReply, phone_.replyTopic, phone_.key);
    return plain ? json::parse(*plain) : json("unopenable");
  }
  json send(const json& command, Time now, PhoneCommands* via = nullptr) {
    return sendPlain(command.dump(), now, "", via);
  }
  static json cmd(const std::string& id, const std::string& name, double t) {
    return {{"n", id}, {"cmd", name}, {"args", json::object()}, {"t", t}};
  }

  TempDir dir_;
  StateFiles files_;
  RemoteSettings settings_;
  UsablePhone phone_;
  std::vector<std::string> ran_;
  json lastArgs_;
  std::optional<std::string> deviceName_;
  PhoneCommands commands_;
};

TEST_F(PhoneCommandsTest, RefusalsHaveTheirExactTextsAndRunNothing) {
  const Time now = 1'800'000'000;
  const std::string tooOld = "too old or from the future (check the phone's clock)";
  std::string longCmd;
  for (int i = 0; i < 40; ++i) longCmd += "命";
  const std::string deep = std::string(10000, '[') + std::string(10000, ']');
  const std::pair<std::string, std::string> cases[] = {
      {cmd(std::string(65, 'a'), "panel", now).dump(), "bad id"},
      {cmd("future-61", "panel", now + 61).dump(), tooOld},
      {cmd("old-wake", "wake", now - kWakeMaxAge - 1).dump(), tooOld},
      {json{{"n", "no-t"}, {"cmd", "panel"}}.dump(), tooOld},
      {cmd("hold-1", "hold", now).dump(), "hold isn't allowed from the phone"},
      {cmd("long-cmd", longCmd, now).dump(), longCmd.substr(0, 60) + "… isn't allowed from the phone"},
      {R"({"n":"deep","cmd":"set","t":1800000000,"args":{"key":"mode","value":)" + deep + "}}",
       "the command is nested too deeply (at most 8 levels)"},
  };
  for (const auto& [plaintext, error] : cases) {
    json reply = sendPlain(plaintext, now);
    EXPECT_EQ(reply["ok"], false) << plaintext.substr(0, 80);
    EXPECT_EQ(reply["error"], error) << plaintext.substr(0, 80);
    EXPECT_EQ(reply["t"], now);
  }
  // Sealed for the reply topic, garbage, or on a topic not ours: the topic
  // is authenticated, so nothing opens and nobody answers.
  EXPECT_TRUE(sendPlain(cmd("moved", "panel", now).dump(), now, phone_.replyTopic).is_null());
  EXPECT_FALSE(commands_.handle(settings_.usable(), phone_.commandTopic, "garbage", now));
  EXPECT_FALSE(commands_.handle(settings_.usable(), "vigilo-elsewhere", "garbage", now));
  EXPECT_TRUE(ran_.empty());
}

TEST_F(PhoneCommandsTest, AcceptedCommandsRunOnceWithTheirAgeAndATrimmedReply) {
  const Time now = 1'800'000'000;
  std::string name = "a";
  for (int i = 0; i < 40; ++i) name += "Ж";
  json fresh = cmd("fresh-59", "panel", now + 59);
  fresh["dev"] = name;
  json reply = send(fresh, now);
  EXPECT_EQ(reply["ok"], true);
  // A long name is cut to whole characters.
  ASSERT_TRUE(deviceName_);
  EXPECT_LE(deviceName_->size(), kMaxDeviceName);
  EXPECT_EQ(reply["re"], "fresh-59");
  EXPECT_FALSE(reply.contains("config_path")) << "paths stay on the machine";
  EXPECT_EQ(reply["battery"], (json{{"percent", 80}, {"watts", 6}, {"on_power", false}, {"charging", false}}));
  EXPECT_EQ(send(cmd("wake-late", "wake", now - 3 * 3600 + 10), now)["ok"], true);
  EXPECT_EQ(lastArgs_["_age"], 3 * 3600 - 10);

  EXPECT_EQ(send(cmd("fresh-59", "panel", now), now + 1)["error"], "already handled");
  // The seen ids outlive the app: a new handler over the same folder refuses
  // the replay too.
  PhoneCommands restarted(&files_, recorder());
  EXPECT_EQ(send(cmd("fresh-59", "panel", now), now + 2, &restarted)["error"], "already handled");
  EXPECT_EQ(ran_, (std::vector<std::string>{"panel", "wake"}));

  // An answer too long for the relay says so, in a message that fits.
  PhoneCommands chatty(&files_, recorder(4000));
  EXPECT_EQ(send(cmd("long", "panel", now), now, &chatty)["error"], "the answer is too long for the relay");
}

TEST_F(PhoneCommandsTest, TheThirtiethCommandInAMinuteWaits) {
  const Time now = 1'800'000'000;
  for (int i = 0; i < 29; ++i) ASSERT_EQ(send(cmd("c" + std::to_string(i), "panel", now), now + i)["ok"], true) << i;
  EXPECT_EQ(send(cmd("c29", "panel", now + 29), now + 29)["error"], "too many commands, wait a minute");
  // A minute after the first, there is room again.
  EXPECT_EQ(send(cmd("c30", "panel", now + 60), now + 60)["ok"], true);
}

TEST(PhoneReplyTest, SchemaAndPowerKeepOnlyWhatThePhoneShows) {
  const json setting = {{"key", "preset"}, {"type", "string"}, {"allowed", {"a", "b"}}, {"value", "a"}};
  json full = setting;
  full["description"] = "long text";
  full["topic"] = "t";
  const json schema = {{"ok", true}, {"status", "Idle"}, {"path", "/x/config.json"}, {"settings", {full}}};
  EXPECT_EQ(phoneReply(schema, "schema"), (json{{"ok", true}, {"status", "Idle"}, {"settings", {setting}}}));

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
  const json phone = phoneReply(power, "power");
  EXPECT_EQ(phone["hours_left_closed"], 9.5);
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
  for (const std::string& link : {"https://vigilo.example/p#k=" + std::string(43, 'A'), std::string("x")}) {
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
        if (quiet) {
          ASSERT_EQ(m[y][x], 0) << "the quiet zone at " << x << "," << y;
        }
      }
    }
    // The top-left finder pattern, dark ring, light ring, dark core: not inverted.
    for (int y = 0; y < 7; ++y) {
      for (int x = 0; x < 7; ++x) {
        const int ring = std::min(std::min(x, y), std::min(6 - x, 6 - y));
        EXPECT_EQ(m[4 + y][4 + x], ring == 1 ? 0 : 1) << x << "," << y;
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
