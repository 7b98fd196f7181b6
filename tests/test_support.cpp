#include "test_support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vigilo::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "vigilo-test-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << data;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

}  // namespace vigilo::test

namespace vigilo::test {
namespace {

const TempDir kNoRunUser;
const bool kIsolated = [] {
  // No test may start an app on the real machine: every tool and
  // RequestClient this test process runs or starts leaves the app alone
  // unless a test allows it for one child ("VIGILO_NO_AUTOSTART=").
  ::setenv("VIGILO_NO_AUTOSTART", "1", 1);
  // Nor may an app a test starts put an icon in the person's tray: tests
  // that want a tray give their own private session bus.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/vigilo-tests-have-no-session-bus", 1);
  // Nor may it keep its heartbeat in the person's runtime folder, where a
  // test that kills it would leave the beat folder behind: apps run as where
  // there is none (no XDG_RUNTIME_DIR, an empty folder for "/run/user"), and
  // a test that wants one passes its own.
  ::unsetenv("XDG_RUNTIME_DIR");
  ::setenv("VIGILO_RUN_USER", kNoRunUser.path().c_str(), 1);
  return true;
}();

}  // namespace
}  // namespace vigilo::test
