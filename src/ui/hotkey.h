#pragma once

#include "engine/config.h"

namespace vigilo {

// The mode a press of the hotkey moves to: Off → When Busy → Always → Off.
Mode nextMode(Mode mode);
// The request text of a mode ("off", "auto", "always").
const char* modeRequestText(Mode mode);

}  // namespace vigilo
