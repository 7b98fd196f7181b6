#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "fuzz_target.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

namespace fs = std::filesystem;

// Given each fuzz target with its checked-in seeds (fuzz/corpus/<target>/)
// and the inputs that once broke it (fuzz/regressions/<target>/): every
// input runs to its end, without a crash or an escaping exception.
TEST(FuzzRegressions, EveryTargetRunsItsSeedsAndPastFindings) {
  const fs::path root = fs::path(sourceDir(__FILE__)).parent_path() / "fuzz";
  const auto& targets = vigilo::fuzz::targets();
  std::map<std::string, int> seeds;
  for (const char* kind : {"corpus", "regressions"}) {
    if (!fs::exists(root / kind)) continue;
    for (const auto& folder : fs::directory_iterator(root / kind)) {
      const std::string name = folder.path().filename().string();
      auto target = targets.find(name);
      // A folder without its target would never be run.
      ASSERT_NE(target, targets.end()) << "no fuzz target named " << name << " for " << folder.path();
      for (const auto& input : fs::directory_iterator(folder.path())) {
        SCOPED_TRACE(input.path().string());
        EXPECT_NO_THROW(target->second(readFile(input.path().string())));
        if (std::string(kind) == "corpus") ++seeds[name];
      }
    }
  }
  for (const auto& [name, target] : targets) EXPECT_GT(seeds[name], 0) << "fuzz target " << name << " has no seeds";
}

}  // namespace
}  // namespace vigilo::test
