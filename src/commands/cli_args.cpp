#include "commands/cli_args.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

namespace vigilo {

std::optional<double> parseDuration(const std::string& text) {
  if (text.empty()) return std::nullopt;
  auto cut = [](double m) { return std::min(m, 10080.0); };
  // A bare number is digits with at most one decimal point: strtod alone
  // would also take "1e3", "0x10", "inf" and leading blanks.
  const bool bare = text.find_first_not_of("0123456789.") == std::string::npos &&
                    std::count(text.begin(), text.end(), '.') <= 1 && text != ".";
  if (bare) return cut(std::strtod(text.c_str(), nullptr));
  double total = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t start = i;
    bool dot = false;
    while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) || (text[i] == '.' && !dot))) {
      if (text[i] == '.') dot = true;
      ++i;
    }
    if (i == start || i >= text.size()) return std::nullopt;
    const std::string number = text.substr(start, i - start);
    if (number == ".") return std::nullopt;
    const double value = std::strtod(number.c_str(), nullptr);
    const char unit = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    if (unit == 'h') {
      total += value * 60;
    } else if (unit == 'm') {
      total += value;
    } else {
      return std::nullopt;
    }
    ++i;
  }
  if (!std::isfinite(total)) return std::nullopt;
  return cut(total);
}

namespace cli {

Invocation parse(const std::vector<std::string>& args) {
  static const char* const kValued[] = {"--for", "--reason", "--pid"};
  static const char* const kSwitches[] = {"--json", "--detailed", "--screen", "--remove", "--yes"};
  Invocation inv;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--") {
      inv.sawDashDash = true;
      inv.command.assign(args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    }
    bool known = false;
    for (const char* f : kValued) {
      if (a == f) {
        known = true;
        if (i + 1 >= args.size()) {
          inv.error = a + " needs a value";
          return inv;
        }
        inv.values[a] = args[++i];
      }
    }
    for (const char* f : kSwitches) {
      if (a == f) {
        known = true;
        inv.switches[a] = true;
      }
    }
    if (!known) {
      if (a.size() > 2 && a.rfind("--", 0) == 0) {
        inv.error = "unknown option " + a + ". Run \"vigilo help\" for the commands.";
        return inv;
      }
      inv.words.push_back(a);
    }
  }
  return inv;
}

}  // namespace cli
}  // namespace vigilo
