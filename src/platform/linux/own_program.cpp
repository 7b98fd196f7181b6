#include "platform/own_program.h"

#include <filesystem>
#include <string_view>

namespace vigilo {

std::optional<std::string> ownExecutable() {
  std::error_code ec;
  const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec || exe.empty()) return std::nullopt;
  std::string path = exe.string();
  // An executable replaced since it started (a rebuild, an upgrade) reads
  // "<path> (deleted)"; the new one is at the same path.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  return path;
}

}  // namespace vigilo
