#pragma once

#include <memory>

#include "platform/run_loop.h"

namespace vigilo {

// The main loop where Linux's eventfd, signalfd and inotify don't exist (the
// Mac): poll(2) over a pipe for wake-ups and another that signal handlers
// write the signal's number to, and file watches that compare each watched
// path's modification time, size and inode every `fileCheckSeconds`. A
// watch therefore fires up to that much late, and an edit that keeps all
// three (a rewrite within the same nanosecond tick at the same size) goes
// unseen; the callers re-read on their own timers as well.
//
// `onSignal` installs a handler that only writes to the pipe, so nothing runs
// in signal context; the signal stays caught after the loop is gone (its
// handler then writes nowhere). Throws std::runtime_error when the pipes
// can't be made; SIGKILL, SIGSTOP and invalid numbers throw
// std::invalid_argument.
std::unique_ptr<RunLoop> makePosixRunLoop(const Clock& clock, double fileCheckSeconds = 1.0);

}  // namespace vigilo
