#pragma once

#include <string>

namespace vigilo {

// The environment variable that moves the folder of the users' runtime
// folders ("/run/user") elsewhere, so a test can play a login session.
inline constexpr const char* kRunUserVariable = "VIGILO_RUN_USER";

// This user's runtime folder (a tmpfs the login manager makes and removes
// with the last session): XDG_RUNTIME_DIR when it is set, else
// "/run/user/<uid>" when that is a private folder of ours, so that a
// program started with a stripped environment finds the same one. Empty
// where there is none (macOS, containers, cron without a session).
std::string userRuntimeFolder();

// The private folder (0700) inside the runtime folder that keeps what
// `appFolder`'s app rewrites every few seconds, so the disk holding the app
// folder can stay asleep: "<runtime>/vigilo-<key>", the key following from
// the app folder's full path. Empty where there is no runtime folder. Not
// made here.
std::string beatFolderFor(const std::string& appFolder);

}  // namespace vigilo
