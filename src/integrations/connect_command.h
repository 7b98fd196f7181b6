#pragma once

#include <string>
#include <vector>

#include "integrations/ai_connect.h"

namespace vigilo {

// `vigilo connect [claude|codex|gemini|claude-app]`: connects the named agent, or
// every agent found. Prints one message per agent; 0 when all succeeded,
// 1 when one failed, 2 for an unknown name.
int connectCommand(const std::vector<std::string>& words, AIConnect& connect);
// `vigilo disconnect`: removes Vigilo from every agent again.
int disconnectCommand(AIConnect& connect);

}  // namespace vigilo
