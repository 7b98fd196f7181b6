#pragma once

#include <filesystem>
#include <string>

namespace vigilo::test {

// A fresh temporary folder, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Writes a whole file (not durably; for test set-up).
void writeFile(const std::string& path, const std::string& data);
// The whole file, or "" when missing.
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);

// The folder of the test source `file` (__FILE__), which the compiler may
// give relative to the build folder (ccache's base-dir rewriting).
inline std::string sourceDir(const char* file) {
  std::filesystem::path p(file);
  if (p.is_relative()) p = std::filesystem::path(VIGILO_BINARY).parent_path() / p;
  return p.lexically_normal().parent_path().string();
}

}  // namespace vigilo::test
