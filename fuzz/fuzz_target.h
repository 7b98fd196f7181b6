#pragma once

#include <map>
#include <string>
#include <string_view>

// A fuzz target is a function that hands one input to the code the app runs
// on outside input. Each target file is built twice: as its own libFuzzer
// program (with fuzz_main.cpp), and into the test program, which feeds it
// the checked-in seeds and the inputs that once crashed it.

namespace vigilo::fuzz {

using Target = void (*)(std::string_view input);

// Every target linked into this program, by name.
std::map<std::string, Target, std::less<>>& targets();
bool addTarget(const char* name, Target target);

// A fresh empty folder for one target in this process, removed at exit.
// `clear` empties it again before each input, so one input's files never
// change how the next one runs.
const std::string& scratchFolder(const char* name, bool clear = true);

// Writes `data` to `path` (creating its folder), for set-up only.
void put(const std::string& path, std::string_view data);

}  // namespace vigilo::fuzz

// Defines the target `name`: the body that follows takes `input`.
#define VIGILO_FUZZ_TARGET(name)                                                                  \
  static void vigiloFuzz_##name(std::string_view input);                                         \
  [[maybe_unused]] static const bool vigiloFuzzAdded_##name =                                    \
      ::vigilo::fuzz::addTarget(#name, &vigiloFuzz_##name);                                      \
  static void vigiloFuzz_##name(std::string_view input)
