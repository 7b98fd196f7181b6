#pragma once

#include <filesystem>
#include <string>

namespace vigilo::test {

// The folder of the test source `file` (__FILE__), which the compiler may
// give relative to the build folder (ccache's base-dir rewriting).
inline std::string sourceDir(const char* file) {
  std::filesystem::path p(file);
  if (p.is_relative()) p = std::filesystem::path(VIGILO_BINARY).parent_path() / p;
  return p.lexically_normal().parent_path().string();
}

}  // namespace vigilo::test
