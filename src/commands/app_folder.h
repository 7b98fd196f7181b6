#pragma once

#include <string>

#include "platform/result.h"

namespace vigilo {

// Whether `appFolder` may be used: made if missing (with `make`; a missing
// folder is fine without it), and it and the folders Vigilo keeps in it
// (agent events, replies) belong to this user alone. Otherwise a sentence
// that says what is wrong and what to do.
Result checkAppFolder(const std::string& appFolder, bool make = true);

}  // namespace vigilo
