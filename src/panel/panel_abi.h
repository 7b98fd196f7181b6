#pragma once

// The boundary between the `vigilo` executable and the panel module
// (libvigilo-panel.so, which links GTK). Only C types cross it: the
// executable carries its own copy of the C++ runtime, the module the shared
// one, so no C++ object may pass between them.

extern "C" {

// What the executable lends the panel.
struct VigiloPanelHost {
  // kVigiloPanelAbi; a module built for another version refuses to run.
  int version;
  void* context;
  // Sends one request (`argsJson` a JSON object) to the running app and
  // gives its reply as JSON text, allocated with malloc: the caller frees it
  // with `release`. Never blocks longer than `timeout` seconds, never starts
  // the app, and may be called from any thread.
  char* (*request)(void* context, const char* cmd, const char* argsJson, double timeout);
  void (*release)(char* text);
};

// The module's one exported function: runs the panel and gives the exit
// status. argv are the words after `vigilo panel`.
typedef int (*VigiloPanelMain)(const VigiloPanelHost* host, int argc, char** argv);
}

inline constexpr int kVigiloPanelAbi = 1;
inline constexpr const char* kVigiloPanelSymbol = "vigilo_panel_main";
inline constexpr const char* kVigiloPanelModule = "libvigilo-panel.so";
