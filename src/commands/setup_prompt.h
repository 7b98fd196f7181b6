#pragma once

#include <string>

namespace vigilo {

// The steps an agent follows to set Vigilo up with the person: what
// `vigilo prompt` prints and the `vigilo_setup_prompt` tool returns.
const std::string& setupPrompt();

}  // namespace vigilo
