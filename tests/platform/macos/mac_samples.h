#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace vigilo::test {

// Mac tools' output as recorded on real Macs (data/README.md names each).
inline std::filesystem::path macSampleDir() {
  return std::filesystem::path(VIGILO_SOURCE_DIR) / "tests/platform/macos/data";
}
inline std::string macSample(const std::string& name) {
  std::ifstream in(macSampleDir() / name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace vigilo::test
