#include "panel/panel_command.h"

#include "platform/own_program.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "commands/channel.h"
#include "platform/text.h"
#include "panel/panel_abi.h"

namespace vigilo {
namespace {

struct HostContext {
  std::string appFolder;
};

char* duplicate(const std::string& text) {
  char* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out != nullptr) std::memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

char* hostRequest(void* context, const char* cmd, const char* argsJson, double timeout) {
  auto* host = static_cast<HostContext*>(context);
  nlohmann::json args = nlohmann::json::parse(argsJson != nullptr ? argsJson : "{}", nullptr, false);
  if (!args.is_object()) args = nlohmann::json::object();
  // One client per call: the panel asks from several threads.
  RequestClient client(host->appFolder);
  const nlohmann::json reply = client.send(cmd != nullptr ? cmd : "", args, timeout);
  return duplicate(dumpJson(reply));
}

void hostRelease(char* text) { std::free(text); }

}  // namespace

std::string panelModulePath() {
  const auto exe = ownExecutable();
  if (!exe) return kVigiloPanelModule;
  const std::filesystem::path bin = std::filesystem::path(*exe).parent_path();
  // Beside the executable in a build folder; under the prefix's lib/vigilo
  // when installed (bin/vigilo next to lib/vigilo/).
  const std::filesystem::path beside = bin / kVigiloPanelModule;
  const std::filesystem::path installed = (bin.parent_path() / "lib" / "vigilo" / kVigiloPanelModule).lexically_normal();
  std::error_code ec;
  if (!std::filesystem::exists(beside, ec) && std::filesystem::exists(installed, ec)) return installed.string();
  return beside.string();
}

bool graphicalSession() {
  for (const char* name : {"WAYLAND_DISPLAY", "DISPLAY"}) {
    const char* v = std::getenv(name);
    if (v != nullptr && *v != '\0') return true;
  }
  return false;
}

std::optional<std::string> panelUnavailable() {
  if (::access(panelModulePath().c_str(), R_OK) != 0) {
    return "the panel: this build has no panel module (" + panelModulePath() +
           "; build it with GTK 4, libgtk-4-dev, installed)";
  }
  if (!graphicalSession()) {
    return std::string("the panel: no graphical session here (neither WAYLAND_DISPLAY nor DISPLAY is set); "
                       "the command line, MCP and the phone work without it");
  }
  return std::nullopt;
}

int runPanel(const std::vector<std::string>& args, const std::string& appFolder) {
  const std::string path = panelModulePath();
  // GTK and everything it pulls in are loaded here only, never by the app
  // or the hooks.
  void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::fprintf(stderr, "vigilo: couldn't load the panel (%s): %s\n", path.c_str(), ::dlerror());
    return 1;
  }
  auto entry = reinterpret_cast<VigiloPanelMain>(::dlsym(module, kVigiloPanelSymbol));
  if (entry == nullptr) {
    std::fprintf(stderr, "vigilo: %s isn't Vigilo's panel module\n", path.c_str());
    return 1;
  }
  // The panel only ever talks to an app that runs; it never starts one.
  ::setenv(kNoAutostartVariable, "1", 1);
  HostContext context{appFolder};
  VigiloPanelHost host{kVigiloPanelAbi, &context, hostRequest, hostRelease};
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const int status = entry(&host, static_cast<int>(args.size()), argv.data());
  // GTK's threads may still run and its global state isn't meant to be torn
  // down (nor counted as leaks by a sanitized build): leave at once.
  std::fflush(nullptr);
  std::_Exit(status);
}

}  // namespace vigilo
