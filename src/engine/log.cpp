#include "engine/log.h"

#include <cstdio>

namespace vigilo {
namespace {
std::function<void(const std::string&)>& sink() {
  static std::function<void(const std::string&)> s;
  return s;
}
}  // namespace

void logLine(const std::string& line) {
  if (sink()) {
    sink()(line);
    return;
  }
  std::fprintf(stderr, "%s\n", line.c_str());
}

void setLogSink(std::function<void(const std::string&)> s) { sink() = std::move(s); }

}  // namespace vigilo
