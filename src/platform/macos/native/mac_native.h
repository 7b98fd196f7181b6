#pragma once

#include "platform/macos/mac_platform.h"

namespace vigilo {

// The Mac's native pieces (Apple frameworks, built only on a Mac): each
// member of MacNative that this build can fill, and their names for
// `vigilo doctor`. Every piece is unverified until the macOS workflow has
// run the suite on a Mac.
MacNative makeMacNative();

}  // namespace vigilo
