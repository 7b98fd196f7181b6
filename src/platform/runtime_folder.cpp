#include "platform/runtime_folder.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "platform/private_folder.h"
#include "platform/text.h"

namespace vigilo {

std::string userRuntimeFolder() {
  if (const char* env = std::getenv("XDG_RUNTIME_DIR"); env != nullptr && *env == '/') return env;
  const char* root = std::getenv(kRunUserVariable);
  const std::string folder =
      std::string(root != nullptr && *root == '/' ? root : "/run/user") + "/" + std::to_string(::getuid());
  // Someone else's folder, or one others may write to, would let them see
  // or forge the heartbeat.
  return checkPrivateFolder(folder).isOk() ? folder : std::string();
}

std::string beatFolderFor(const std::string& appFolder) {
  const std::string runtime = userRuntimeFolder();
  if (runtime.empty()) return {};
  // One folder however the app folder is spelt ("~/x/", through a link).
  std::error_code ec;
  auto path = std::filesystem::weakly_canonical(std::filesystem::absolute(appFolder, ec), ec);
  std::string text = (ec ? std::filesystem::path(appFolder) : path).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return runtime + "/vigilo-" + shortHash(text);
}

}  // namespace vigilo
