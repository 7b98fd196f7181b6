#pragma once

#include "platform/desktop.h"

namespace vigilo {

class Engine;

// What the tray item shows, worked out from the engine alone. Must be
// called on the engine's thread; reads only.
TrayView trayView(const Engine& engine);

}  // namespace vigilo
