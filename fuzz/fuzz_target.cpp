#include "fuzz_target.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

namespace vigilo::fuzz {

namespace {

// Owns the scratch folders and removes them when the program ends.
struct Scratch {
  std::map<std::string, std::string, std::less<>> folders;
  ~Scratch() {
    std::error_code ec;
    for (const auto& [name, path] : folders) std::filesystem::remove_all(std::filesystem::path(path).parent_path(), ec);
  }
};

Scratch& scratch() {
  static Scratch s;
  return s;
}

}  // namespace

std::map<std::string, Target, std::less<>>& targets() {
  static std::map<std::string, Target, std::less<>> all;
  return all;
}

bool addTarget(const char* name, Target target) {
  targets()[name] = target;
  return true;
}

const std::string& scratchFolder(const char* name, bool clear) {
  auto& folders = scratch().folders;
  auto it = folders.find(name);
  if (it == folders.end()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vigilo-fuzz-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    it = folders.emplace(name, pattern + "/" + name).first;
    clear = true;
  }
  if (clear) {
    std::error_code ec;
    std::filesystem::remove_all(it->second, ec);
    std::filesystem::create_directories(it->second, ec);
  }
  return it->second;
}

void put(const std::string& path, std::string_view data) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(data.data(), static_cast<std::streamsize>(data.size()));
}

}  // namespace vigilo::fuzz
