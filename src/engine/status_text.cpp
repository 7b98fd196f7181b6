#include "engine/engine.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <langinfo.h>
#include <locale.h>

// The engine's texts: the status line, the menu-bar title and the times
// and durations they show.

namespace vigilo {
long long wholeMinutesUp(double seconds, long long least) {
  // Far beyond any real end time, but still safe to convert.
  constexpr double kCap = 1e12;
  if (!std::isfinite(seconds)) return least;
  return std::max(least, static_cast<long long>(std::ceil(std::min(seconds / 60.0, kCap) - 1e-9)));
}


std::string formatMinutes(long long minutes) {
  if (minutes < 0) minutes = 0;
  long long h = minutes / 60;
  long long m = minutes % 60;
  if (h == 0) return std::to_string(m) + "m";
  if (m == 0) return std::to_string(h) + "h";
  return std::to_string(h) + "h " + std::to_string(m) + "m";
}

std::string shortTimeFormat(std::string_view localeTimeFormat) {
  // A 12-hour locale writes its time with %I or %l (hours 1-12) or %r (the
  // whole 12-hour time); everything else keeps a 24-hour clock.
  for (std::size_t i = 0; i + 1 < localeTimeFormat.size(); ++i) {
    if (localeTimeFormat[i] != '%') continue;
    const char c = localeTimeFormat[++i];
    if (c == 'I' || c == 'l' || c == 'r') return "%l:%M %p";
  }
  return "%H:%M";
}

namespace {

// The time locale of the environment (LC_ALL, LC_TIME, LANG), made again
// only when those change; the C locale where it can't be had.
class TimeLocale {
 public:
  ~TimeLocale() { drop(); }
  locale_t get() {
    std::string key;
    for (const char* name : {"LC_ALL", "LC_TIME", "LANG"}) {
      const char* v = std::getenv(name);
      key += v != nullptr ? v : "";
      key += '\n';
    }
    if (!made_ || key != key_) {
      drop();
      loc_ = ::newlocale(LC_TIME_MASK, "", static_cast<locale_t>(nullptr));
      if (loc_ == static_cast<locale_t>(nullptr)) loc_ = ::newlocale(LC_TIME_MASK, "C", static_cast<locale_t>(nullptr));
      key_ = std::move(key);
      made_ = true;
    }
    return loc_;
  }

 private:
  void drop() {
    if (loc_ != static_cast<locale_t>(nullptr)) ::freelocale(loc_);
    loc_ = static_cast<locale_t>(nullptr);
  }
  locale_t loc_ = static_cast<locale_t>(nullptr);
  std::string key_;
  bool made_ = false;
};

}  // namespace

std::string formatShortTime(Time t) {
  static thread_local TimeLocale locale;
  const std::time_t secs = static_cast<std::time_t>(std::floor(t));
  std::tm tm{};
  localtime_r(&secs, &tm);
  char buf[64];
  const locale_t loc = locale.get();
  if (loc == static_cast<locale_t>(nullptr)) {
    std::strftime(buf, sizeof buf, "%H:%M", &tm);
    return buf;
  }
  const std::string format = shortTimeFormat(::nl_langinfo_l(T_FMT, loc));
  if (::strftime_l(buf, sizeof buf, format.c_str(), &tm, loc) == 0) return {};
  std::string out = buf;
  // %l pads a one-digit hour with a space: "2:30 PM", not " 2:30 PM".
  if (!out.empty() && out.front() == ' ') out.erase(0, 1);
  return out;
}

// ---------------------------------------------------------------- texts

std::string Engine::statusLine() const {
  if (!setupReady_) return "Needs a one-time setup";
  if (blockedReason_) return *blockedReason_ + ", sleeps when closed";
  switch (config_.mode) {
    case Mode::On:
      if (config_.alwaysUntil) {
        const long long left = wholeMinutesUp(*config_.alwaysUntil - now(), 0);
        return "Awake until " + formatShortTime(*config_.alwaysUntil) + " · " + formatMinutes(left) + " left";
      }
      return "Awake until you turn it off";
    case Mode::Auto:
      if (holding_ && !holdReason_.empty()) return holdReason_ + " · stays awake closed";
      if (snoozed_) return "Sleeping until the lid opens";
      return "Nothing running · sleeps when closed";
    case Mode::Off:
      if (holding_ && !holdReason_.empty()) return holdReason_ + " · stays awake closed";
      return "Sleeps normally";
  }
  return {};
}

std::string Engine::menuBarTitle() const {
  char buf[32];
  switch (config_.menuBarText) {
    case MenuBarText::None:
      return {};
    case MenuBarText::Battery:
      return battery_ ? std::to_string(battery_->percent) + "%" : std::string();
    case MenuBarText::Timer: {
      auto until = onUntil();
      if (!until) return {};
      const long long mins = wholeMinutesUp(*until - now(), 0);
      std::snprintf(buf, sizeof buf, "%lld:%02lld", mins / 60, mins % 60);
      return buf;
    }
    case MenuBarText::TimeLeft: {
      // Worked out from the charge and the draw to expect (the lid-closed
      // estimate while shut), not the controller's own figure, which only
      // knows the draw of the moment.
      if (!battery_ || battery_->onPower() || !power_) return {};
      auto hours = power_->hoursLeft(*this);
      if (!hours) return {};
      const double minutes = *hours * 60.0;
      if (minutes >= 60) {
        std::snprintf(buf, sizeof buf, "%.0fh", minutes / 60.0);
      } else {
        std::snprintf(buf, sizeof buf, "%.0fm", minutes);
      }
      return buf;
    }
    case MenuBarText::Watts: {
      auto w = systemWatts();
      if (!w) return {};
      std::snprintf(buf, sizeof buf, "%.1fW", *w);
      return buf;
    }
  }
  return {};
}

}  // namespace vigilo
