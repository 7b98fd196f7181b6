#pragma once

#include <functional>
#include <string>

namespace vigilo {

// Writes one line to the log (standard error). Tests may divert it.
void logLine(const std::string& line);
// Replaces where log lines go; an empty function restores standard error.
void setLogSink(std::function<void(const std::string&)> sink);

}  // namespace vigilo
