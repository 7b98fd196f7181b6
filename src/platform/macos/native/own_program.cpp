// The running executable's path on a Mac: _NSGetExecutablePath (dyld(3),
// "Mach-O Programming Topics"), made absolute and free of links with
// realpath.

#include "platform/own_program.h"

#include <mach-o/dyld.h>
#include <stdlib.h>

#include <cstdint>
#include <vector>

namespace vigilo {

std::optional<std::string> ownExecutable() {
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> path(size + 1, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return std::nullopt;
  char resolved[PATH_MAX];
  if (::realpath(path.data(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

}  // namespace vigilo
