#include "commands/mcp_server.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "commands/settings_schema.h"
#include "commands/setup_prompt.h"
#include "platform/text.h"

namespace vigilo {

const char* const kMcpInstructions =
    "Vigilo keeps this Mac awake with the lid closed and cuts power while it does. Call vigilo_keep_awake at the "
    "start of long work so closing the lid won't stop you; it ends by itself when this session does. To tune it: "
    "vigilo_settings lists every setting, vigilo_power shows what's using power and which setting fixes it, "
    "vigilo_power_test measures each saving with the lid closed. If asked to set Vigilo up, follow "
    "vigilo_setup_prompt.";

std::string mcpInstructions(const MachineWords& words) {
  // The text is the Mac's; another machine's name takes its place.
  std::string text = kMcpInstructions;
  const std::string mac = "this Mac";
  if (const auto at = text.find(mac); at != std::string::npos) text.replace(at, mac.size(), "this " + words.machine);
  return text;
}

namespace {

constexpr double kTimeout = 8;

}  // namespace

struct McpTool {
  // What a tool does with its arguments before they go to the app.
  enum class Handling {
    PassThrough,  // sends `request` with the arguments unchanged
    KeepAwake,    // binds the hold to the session
    Release,      // ends only the session's own holds
    SetupPrompt,  // answers locally
  };
  std::string name;
  std::string description;
  nlohmann::json inputSchema;
  std::string request;
  double timeout = kTimeout;
  Handling handling = Handling::PassThrough;
};

namespace {

using Handling = McpTool::Handling;
using json = nlohmann::json;
using Tool = McpTool;

constexpr const char* kDefaultProtocol = "2025-06-18";
constexpr const char* kKnownProtocols[] = {"2025-06-18", "2025-03-26", "2024-11-05"};

constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kInternalError = -32603;

// Deeper input is refused: the JSON library walks values recursively when it
// copies or writes them, and no message of this protocol nests this deep.
constexpr int kMaxMcpDepth = 64;

constexpr double kPowerTimeout = 10;
constexpr double kMeasureTimeout = 20;
constexpr double kDefaultHoldMinutes = 120;

struct Property {
  std::string name;
  std::string type;
  std::string description;
  bool required = false;
  std::vector<std::string> allowed = {};
};

json schema(const std::vector<Property>& properties) {
  json props = json::object();
  json required = json::array();
  for (const Property& p : properties) {
    json prop = {{"type", p.type}, {"description", p.description}};
    if (!p.allowed.empty()) prop["enum"] = p.allowed;
    props[p.name] = std::move(prop);
    if (p.required) required.push_back(p.name);
  }
  return {{"type", "object"}, {"properties", std::move(props)}, {"required", std::move(required)}};
}

// The tool table, naming the machine in its own words (the Mac's give the
// exact texts).
std::vector<Tool> makeTools(const MachineWords& w) {
  constexpr bool req = true;
  const std::string& m = w.machine;
  std::vector<Tool> t;
  t.push_back({"vigilo_status",
               "Get Vigilo's state: whether the " + m +
                   " is being kept awake and why, lid open/closed, battery, estimated hours left with the lid closed, "
                   "which agents/apps it's watching, active holds, and the apps using the most power.",
               schema({}), "status"});
  t.push_back({"vigilo_keep_awake",
               "Keep the " + m +
                   " awake, including with the lid closed, while you work. By default the hold ends when this "
                   "Claude session ends or after 2 hours, whichever is first. Pass minutes for a fixed time, or pid "
                   "to tie it to a process (e.g. a long build). Returns a hold id: call vigilo_release as soon as the "
                   "work is done. Battery limit and heat guard still apply.",
               schema({{"reason", "string", "Short reason shown to the user, e.g. 'Training the model'", req},
                       {"minutes", "number", "Optional. End automatically after this many minutes."},
                       {"pid", "integer", "Optional. End automatically when this process exits."}}),
               "hold", kTimeout, Handling::KeepAwake});
  t.push_back({"vigilo_release",
               "End a hold this session made with vigilo_keep_awake so the " + m +
                   " can sleep normally again. Omit hold_id to end all of this session's holds (never anyone else's).",
               schema({{"hold_id", "string", "Hold id to end"}}), "release_own", kTimeout, Handling::Release});
  t.push_back({"vigilo_set_mode",
               "Set Vigilo's mode. auto: stay awake only while agents/apps are working (recommended). always: stay "
               "awake regardless (optionally for some minutes). off: normal " + m + " sleep.",
               schema({{"mode", "string", "off, auto (shown as When Busy: awake while agents work) or always", req,
                        {"off", "auto", "always"}},
                       {"minutes", "number", "For always: how long"}}),
               "mode"});
  t.push_back({"vigilo_set_preset",
               "What happens to other apps while the lid is closed. max_battery: pause them until the lid opens "
               "(music, calls and services agents use keep running). balanced: slow them to efficiency cores. "
               "full_speed: leave them. Simulators, background audio and " + w.lowPower + " are separate settings "
               "(vigilo_settings).",
               schema({{"preset", "string", "max_battery, balanced or full_speed", req,
                        {"max_battery", "balanced", "full_speed"}}}),
               "preset"});
  t.push_back({"vigilo_set_app_rule",
               "Choose what one app does while the lid is closed: leave (runs normally), slow (efficiency cores only, "
               "about 1/4 the power), pause (frozen until the lid opens), or default (remove the override and follow "
               "the preset). Apps Vigilo is keeping awake are never slowed or paused.",
               schema({{"app", "string", "App name or bundle id, e.g. 'Slack' or 'com.spotify.client'", req},
                       {"rule", "string", "leave, slow, pause or default", req, {"leave", "slow", "pause", "default"}}}),
               "rule"});
  t.push_back({"vigilo_watch_app",
               "Add an app or command-line tool to Vigilo's 'Keeps awake for' list, or remove it (remove: true). While "
               "it's busy the " + m +
                   " stays awake with the lid closed. Use it for whatever the current task needs (e.g. add 'Google "
                   "Chrome' while a browser task runs, remove it after). The reply includes the full list; "
                   "vigilo_status shows it too.",
               schema({{"app", "string",
                        "App name ('Google Chrome'), bundle id ('com.google.Chrome'), .app path, or executable name "
                        "('ffmpeg')",
                        req},
                       {"remove", "boolean", "true to remove it from the list"}}),
               "watch"});
  t.push_back({"vigilo_add_agent",
               "Teach Vigilo a new command-line agent or tool by executable name, so it stays awake while that tool is "
               "working.",
               schema({{"name", "string", "Display name", req},
                       {"executable", "string", "Process executable name, e.g. 'my-agent'", req},
                       {"idle_watts", "number", "Below this power the tool counts as idle (default 0.05)"},
                       {"remove", "boolean", "Forget it"}}),
               "agent"});
  t.push_back({"vigilo_settings",
               "List every Vigilo setting with its current value, allowed values, what it does and any safety rule. "
               "Read this before changing settings.",
               schema({}), "schema"});
  t.push_back({"vigilo_set_setting",
               "Change one setting (see vigilo_settings for all keys and what they do). Safety settings can only be "
               "made stricter from here: battery_floor can only go up and heat_guard can only be turned on. Ask the "
               "person before turning lock_on_close on (it brings back the lock screen).",
               schema({{"key", "string", "Setting key", req, SettingsSchema::keys()},
                       {"value", "string", "New value, e.g. '20', 'on', 'off', 'max_battery'", req}}),
               "set"});
  // Only what this machine can cut is offered.
  std::string cuts = "screen kept on while closed, ";
  if (!w.lacks("pause_simulators")) cuts += "booted simulators and Xcode previews, ";
  if (!w.lacks("pause_background_audio")) cuts += "apps holding the speakers, ";
  cuts += "busy apps, " + w.lowPower;
  t.push_back({"vigilo_power",
               MachineWords::capitalised(w.wholeMachine) + " power right now (" + w.powerFrom +
                   ") and a list of what is using it with the setting that would cut each: " + cuts +
                   ". Includes savings measured by vigilo_power_test.",
               schema({}), "power", kPowerTimeout});
  t.push_back({"vigilo_power_test",
               "With the lid closed: switch all of Vigilo's savings off, on, off, on and read the " + w.wholeMachine +
                   " power " + w.powerTestReading + ", so you know what they're worth on this " + m +
                   " (reported as unclear if the " + m +
                   "'s own load moved too much). About 4 minutes; agents keep running. detailed: true adds each "
                   "saving on its own (about 12 minutes). Returns at once; call vigilo_power afterwards (power_test: "
                   "done). screen: true includes turning the screen off, which " + w.screenTestEffect +
                   ": ask the person first.",
               schema({{"detailed", "boolean", "Also measure each saving on its own (about 12 minutes). Default false."},
                       {"screen", "boolean", "Also measure the screen (" + w.screenTestEffect + "). Default false."}}),
               "power_test"});
  t.push_back({"vigilo_setup_prompt",
               "The recommended steps for setting Vigilo up with the person. Use when asked to set up or tune Vigilo.",
               schema({}), "", kTimeout, Handling::SetupPrompt});
  t.push_back({"vigilo_energy",
               "List the apps using the most power right now and what each will do while the lid is closed.",
               schema({}), "energy"});
  t.push_back({"vigilo_measure_savings",
               "Estimate how much power the current while-closed rules save: slows/pauses the same apps for a few "
               "seconds and compares " + w.appEnergy + " before and after. A rough, short-window estimate.",
               schema({}), "measure", kMeasureTimeout});
  t.push_back({"vigilo_get_config",
               "Read Vigilo's full settings and the path of its config.json, which can also be edited directly (it "
               "reloads instantly).",
               schema({}), "config"});
  return t;
}


std::string compact(const json& j) { return dumpJson(j); }

json result(const json& id, json value) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(value)}};
}

json error(const json& id, int code, const std::string& message, const std::optional<std::string>& data = {}) {
  json e = {{"code", code}, {"message", message}};
  if (data) e["data"] = *data;
  return {{"jsonrpc", "2.0"}, {"id", id}, {"error", std::move(e)}};
}

bool given(const json& args, const char* key) {
  auto it = args.find(key);
  return it != args.end() && !it->is_null();
}

std::string shown(const json& value) {
  std::string text = compact(value);
  return cutUtf8(text, 40);
}

// Checks the arguments against the tool's input schema, so a wrong type or
// a missing required argument is refused with a sentence naming the argument
// instead of becoming a different request: "2 hours" or the text "1" as a
// process would make a hold without end. Null counts as absent. Allowed
// values are the app's to check.
std::optional<std::string> argumentProblem(const json& schema, const json& args) {
  const json& props = schema["properties"];
  for (const json& key : schema["required"]) {
    const std::string name = key.get<std::string>();
    if (auto it = args.find(name); it == args.end() || it->is_null()) {
      return name + " is required: " + props[name]["description"].get<std::string>();
    }
  }
  for (auto& [key, value] : args.items()) {
    auto prop = props.find(key);
    if (prop == props.end() || value.is_null()) continue;
    const std::string type = (*prop)["type"];
    bool fits = false;
    std::string wanted;
    if (type == "string") {
      // A setting's value may come as a number or a truth value too: the
      // app reads it as the text it would be.
      fits = value.is_string() || (key == "value" && (value.is_number() || value.is_boolean()));
      wanted = "a text";
    } else if (type == "number") {
      fits = value.is_number() && std::isfinite(value.get<double>());
      wanted = "a number";
    } else if (type == "integer") {
      fits = value.is_number_integer() ||
             (value.is_number_float() && std::isfinite(value.get<double>()) &&
              value.get<double>() == std::floor(value.get<double>()));
      wanted = "a whole number";
    } else if (type == "boolean") {
      fits = value.is_boolean();
      wanted = "true or false";
    }
    if (!fits) return key + " must be " + wanted + ", not " + shown(value);
  }
  return std::nullopt;
}

// The text of a message's top-level "id" when it is a number the library
// reads as floating point (beyond 64 bits, or with a fraction or exponent):
// written back from the value it would come back rounded, and a client
// matches answers by the id it sent.
class IdText final : public nlohmann::json_sax<json> {
 public:
  std::optional<std::string> text;

  bool null() override { return scalar(); }
  bool boolean(bool) override { return scalar(); }
  bool number_integer(number_integer_t) override { return scalar(); }
  bool number_unsigned(number_unsigned_t) override { return scalar(); }
  bool number_float(number_float_t, const string_t& raw) override { return scalar(raw); }
  bool string(string_t&) override { return scalar(); }
  bool binary(binary_t&) override { return scalar(); }
  bool start_object(std::size_t) override { return open(); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_array() override { return close(); }
  bool key(string_t& name) override {
    idNext_ = depth_ == 1 && name == "id";
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const json::exception&) override { return false; }

 private:
  // The last "id" counts, as it does when the message is read.
  bool scalar(std::optional<std::string> raw = std::nullopt) {
    if (idNext_) text = std::move(raw);
    idNext_ = false;
    return true;
  }
  bool open() {
    if (idNext_) text.reset();
    idNext_ = false;
    ++depth_;  // the library's event parser keeps its own stack: no depth limit is needed here
    return true;
  }
  bool close() {
    --depth_;
    return true;
  }
  int depth_ = 0;
  bool idNext_ = false;
};

std::optional<std::string> rawNumberId(std::string_view line) {
  IdText sax;
  if (!json::sax_parse(line.begin(), line.end(), &sax)) return std::nullopt;
  return sax.text;
}

// The response as one line, its id written as the request wrote it.
std::string lineOf(json response, const std::optional<std::string>& rawId) {
  if (!rawId || !response.contains("id")) return compact(response);
  response.erase("id");
  return "{\"id\":" + *rawId + "," + compact(response).substr(1);
}

bool replyOk(const json& reply) {
  if (!reply.is_object()) return false;
  auto it = reply.find("ok");
  return it != reply.end() && it->is_boolean() && it->get<bool>();
}

}  // namespace

McpServer::McpServer(McpContext context) : context_(std::move(context)), tools_(makeTools(context_.words)) {}

McpServer::~McpServer() = default;

void McpServer::note(const std::string& text) const {
  if (context_.log) *context_.log << "vigilo mcp: " << text << std::endl;
}

std::string McpServer::tooLongAnswer() const {
  const std::string limit = std::to_string(kMcpMaxLineBytes / (1024 * 1024)) + " MiB";
  note("skipped a message longer than " + limit);
  return compact(error(nullptr, kInvalidRequest, "Invalid Request", "a message may be at most " + limit + " long"));
}

std::optional<std::string> McpServer::handleLine(std::string_view line) {
  try {
    bool tooDeep = false;
    const json message = json::parse(
        line.begin(), line.end(),
        [&tooDeep](int depth, json::parse_event_t, json&) {
          if (depth <= kMaxMcpDepth) return true;
          tooDeep = true;
          return false;
        },
        false);
    if (message.is_discarded() || (!message.is_object() && !message.is_array())) {
      if (line.find_first_not_of(" \t\r") != std::string_view::npos) note("skipped a line that is not a JSON object");
      return std::nullopt;
    }
    if (message.is_array()) {
      return compact(error(nullptr, kInvalidRequest, "Invalid Request",
                           "batches are not supported: send one message per line"));
    }
    auto id = message.find("id");
    // A notification: nothing is owed, whatever it says.
    if (id == message.end()) return std::nullopt;
    if (!id->is_string() && !id->is_number()) {
      return compact(error(nullptr, kInvalidRequest, "Invalid Request", "id must be a string or a number"));
    }
    std::optional<std::string> rawId;
    if (id->is_number_float()) rawId = rawNumberId(line);
    if (tooDeep) {
      return lineOf(error(*id, kInvalidRequest, "Invalid Request",
                           "the message nests deeper than " + std::to_string(kMaxMcpDepth) + " levels"), rawId);
    }
    auto method = message.find("method");
    if (method == message.end() || !method->is_string()) {
      // The client answering something: this server never asks, so there is
      // nothing to match it with.
      if (message.contains("result") || message.contains("error")) return std::nullopt;
      return lineOf(error(*id, kInvalidRequest, "Invalid Request", "method must be a string"), rawId);
    }
    json params = json::object();
    if (auto p = message.find("params"); p != message.end() && !p->is_null()) {
      if (!p->is_object()) {
        return lineOf(error(*id, kInvalidParams, "params must be an object of named values, not " +
                                                      std::string(p->type_name())), rawId);
      }
      params = *p;
    }
    try {
      return lineOf(dispatch(*id, method->get<std::string>(), params), rawId);
    } catch (const std::exception& e) {
      return lineOf(error(*id, kInternalError, "Internal error", e.what()), rawId);
    }
  } catch (const std::exception& e) {
    // Only the library's own failures land here (memory, say); the line is
    // lost but the server carries on.
    note(std::string("skipped a line: ") + e.what());
    return std::nullopt;
  }
}

json McpServer::dispatch(const json& id, const std::string& method, const json& params) {
  if (method == "initialize") {
    std::string version = kDefaultProtocol;
    auto asked = params.find("protocolVersion");
    if (asked != params.end() && asked->is_string()) {
      for (const char* known : kKnownProtocols) {
        if (*asked == known) version = known;
      }
    }
    return result(id, {{"protocolVersion", version},
                       {"capabilities", {{"tools", json::object()}}},
                       {"serverInfo", {{"name", "vigilo"}, {"version", "1.0"}}},
                       {"instructions", mcpInstructions(context_.words)}});
  }
  if (method == "ping") return result(id, json::object());
  if (method == "tools/list") {
    json list = json::array();
    for (const Tool& t : tools_) {
      list.push_back({{"name", t.name}, {"description", t.description}, {"inputSchema", t.inputSchema}});
    }
    return result(id, {{"tools", std::move(list)}});
  }
  if (method == "tools/call") return callTool(id, params);
  return error(id, kMethodNotFound, "Method not found: " + method);
}

json McpServer::callTool(const json& id, const json& params) {
  auto name = params.find("name");
  if (name == params.end() || !name->is_string()) {
    return error(id, kInvalidParams, "tools/call needs params.name, the name of a tool from tools/list");
  }
  const Tool* tool = nullptr;
  for (const Tool& t : tools_) {
    if (*name == t.name) tool = &t;
  }
  if (tool == nullptr) return error(id, kInvalidParams, "Unknown tool " + name->get<std::string>());

  json args = json::object();
  if (auto a = params.find("arguments"); a != params.end() && !a->is_null()) {
    if (!a->is_object()) {
      return error(id, kInvalidParams,
                   "params.arguments must be an object of named values, not " + std::string(a->type_name()));
    }
    args = *a;
  }

  const json pid = context_.sessionPid;
  json reply;
  if (auto problem = argumentProblem(tool->inputSchema, args)) {
    reply = {{"ok", false}, {"error", *problem}};
    json content = json::array({{{"type", "text"}, {"text", compact(reply)}}});
    return result(id, {{"content", std::move(content)}, {"isError", true}});
  }
  switch (tool->handling) {
    case Handling::PassThrough:
      reply = context_.send(tool->request, args, tool->timeout);
      break;
    case Handling::KeepAwake:
      // A hold nobody bounds would keep the laptop awake after the session
      // is gone, so an unbounded one ends with the session or in two hours.
      if (!given(args, "minutes") && !given(args, "pid")) {
        args["pid"] = pid;
        args["minutes"] = kDefaultHoldMinutes;
      }
      args["owner"] = pid;
      reply = context_.send(tool->request, args, tool->timeout);
      break;
    case Handling::Release: {
      // The id is checked against the session, so one agent cannot end
      // another's hold; an empty id reads as "all of mine".
      auto holdId = args.find("hold_id");
      if (holdId == args.end() || holdId->is_null() || (holdId->is_string() && holdId->get<std::string>().empty())) {
        reply = context_.send("release_pid", {{"pid", pid}}, tool->timeout);
      } else if (!holdId->is_string()) {
        reply = {{"ok", false}, {"error", "hold_id must be the hold id text that vigilo_keep_awake returned"}};
      } else {
        reply = context_.send("release_own", {{"id", *holdId}, {"pid", pid}}, tool->timeout);
      }
      break;
    }
    case Handling::SetupPrompt:
      reply = {{"ok", true}, {"prompt", setupPrompt()}};
      break;
  }
  json content = json::array({{{"type", "text"}, {"text", compact(reply)}}});
  return result(id, {{"content", std::move(content)}, {"isError", !replyOk(reply)}});
}

namespace {

enum class LineEnd { Newline, EndOfInput, Nothing };

// Reads through the next newline into `line` (without it), keeping at most
// `cap` bytes; `overflow` tells that more were dropped. Reads the stream
// buffer directly so that a huge line costs no more than its bytes.
LineEnd readLine(std::istream& in, std::string& line, std::size_t cap, bool& overflow) {
  line.clear();
  overflow = false;
  std::streambuf* buffer = in.rdbuf();
  if (buffer == nullptr) return LineEnd::Nothing;
  bool any = false;
  for (;;) {
    const int c = buffer->sbumpc();
    if (c == std::char_traits<char>::eof()) return any ? LineEnd::EndOfInput : LineEnd::Nothing;
    any = true;
    if (c == '\n') return LineEnd::Newline;
    if (line.size() < cap) {
      line.push_back(static_cast<char>(c));
    } else {
      overflow = true;
    }
  }
}

}  // namespace

int runMcpServer(std::istream& in, std::ostream& out, McpContext context) {
  McpServer server(std::move(context));
  std::string line;
  for (;;) {
    bool overflow = false;
    const LineEnd end = readLine(in, line, kMcpMaxLineBytes, overflow);
    if (end == LineEnd::Nothing) return 0;
    // A last line cut off by the end of input is still read: a client may
    // write its final message without a newline and close. A truly partial
    // message does not parse and is skipped like any other bad line.
    std::optional<std::string> answer = overflow ? server.tooLongAnswer() : server.handleLine(line);
    if (answer) {
      out << *answer << '\n';
      out.flush();
      if (!out) return 1;
    }
    if (end == LineEnd::EndOfInput) return 0;
  }
}

}  // namespace vigilo
