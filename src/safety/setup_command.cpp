#include "safety/setup_command.h"

#include <cstdio>
#include <functional>
#include <cstdlib>
#include <unistd.h>

namespace vigilo {

bool askOnTerminal(const std::string& question) {
  if (::isatty(0) == 0) return false;
  std::printf("%s [y/N] ", question.c_str());
  std::fflush(stdout);
  char* raw = nullptr;
  std::size_t size = 0;
  const ssize_t n = ::getline(&raw, &size, stdin);
  std::string answer = n > 0 ? std::string(raw, static_cast<std::size_t>(n)) : std::string();
  std::free(raw);
  if (n <= 0) return false;
  while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r')) answer.pop_back();
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

int runSetupCommand(Setup& setup, bool remove, bool yes, const std::function<bool(const std::string&)>& ask) {
  std::vector<std::string> said;
  Result r = Result::ok();
  if (remove) {
    r = setup.uninstall(said);
  } else {
    if (auto* linux = dynamic_cast<LinuxSetup*>(&setup); linux != nullptr && !linux->polkitRuleInstalled()) {
      const std::string question =
          "Vigilo can also install a polkit rule (" + linux->polkitRulePath() +
          ") that lets it keep this laptop awake with the lid shut when it runs as your user service. It "
          "applies to your user only, needs your password once, and vigilo setup --remove takes it out. "
          "Install it?";
      linux->withPolkitRule = yes || (ask && ask(question));
      if (!linux->withPolkitRule) said.push_back("Left out the polkit rule (vigilo setup --yes installs it)");
    }
    r = setup.install(said);
  }
  for (const auto& line : said) std::printf("%s\n", line.c_str());
  if (!r) {
    std::fprintf(stderr, "vigilo: %s\n", r.message().c_str());
    return 1;
  }
  if (said.empty()) std::printf("%s\n", remove ? "Nothing of Vigilo's setup was installed." : "Everything was already set up.");
  return 0;
}

}  // namespace vigilo
