#pragma once

namespace vigilo {

// Blocks every signal in the calling thread: signals belong to the main
// loop, and a helper thread that left one unblocked would take it with its
// default action (SIGTERM would end the app before it puts things back).
void blockSignalsInThisThread();

}  // namespace vigilo
