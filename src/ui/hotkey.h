#pragma once

#include "engine/config.h"

namespace vigilo {

// The mode a press of the hotkey moves to: Off → When Busy → Always → Off.
Mode nextMode(Mode mode);

}  // namespace vigilo
