// The module graph, read from the sources' own includes: the folders of
// src/ form layers with no cycle, backends see only the platform's
// interfaces, and only app/ picks a backend.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vigilo {
namespace {

namespace fs = std::filesystem;

const std::set<std::string> kBackends = {"platform/linux", "platform/sim", "platform/macos"};

// The module of a path under src/: its folder, with the backends and the
// panel's GTK module as modules of their own.
std::string moduleOf(const std::string& path) {
  for (const std::string sub : {"platform/linux/", "platform/sim/", "platform/macos/", "panel/gtk/"}) {
    if (path.rfind(sub, 0) == 0) return sub.substr(0, sub.size() - 1);
  }
  return path.substr(0, path.find('/'));
}

struct Edge {
  std::string from, to, file, include;
};

// Every `#include "x/y.h"` of src/ that names a file of src/, as an edge
// between two different modules.
std::vector<Edge> includeEdges(const fs::path& src) {
  std::vector<Edge> edges;
  for (const auto& entry : fs::recursive_directory_iterator(src)) {
    const std::string ext = entry.path().extension().string();
    if (!entry.is_regular_file() || (ext != ".h" && ext != ".cpp")) continue;
    const std::string file = entry.path().lexically_relative(src).generic_string();
    std::ifstream in(entry.path());
    std::string line;
    while (std::getline(in, line)) {
      if (line.rfind("#include \"", 0) != 0) continue;
      const std::string include = line.substr(10, line.find('"', 10) - 10);
      if (!fs::exists(src / include)) continue;
      const std::string from = moduleOf(file), to = moduleOf(include);
      if (from != to) edges.push_back({from, to, file, include});
    }
  }
  return edges;
}

// The first cycle found, as the modules along it, or nothing.
std::vector<std::string> findCycle(const std::map<std::string, std::set<std::string>>& graph) {
  std::map<std::string, int> state;  // 1 on the path, 2 done
  std::vector<std::string> path, cycle;
  std::function<bool(const std::string&)> visit = [&](const std::string& m) {
    state[m] = 1;
    path.push_back(m);
    if (auto it = graph.find(m); it != graph.end()) {
      for (const std::string& next : it->second) {
        if (state[next] == 1) {
          auto from = std::find(path.begin(), path.end(), next);
          cycle.assign(from, path.end());
          cycle.push_back(next);
          return true;
        }
        if (state[next] == 0 && visit(next)) return true;
      }
    }
    path.pop_back();
    state[m] = 2;
    return false;
  };
  for (const auto& [m, _] : graph) {
    if (state[m] == 0 && visit(m)) return cycle;
  }
  return {};
}

TEST(Architecture, ModulesFormLayersAndOnlyAppPicksABackend) {
  const fs::path src = fs::path(VIGILO_SOURCE_DIR) / "src";
  ASSERT_TRUE(fs::is_directory(src)) << src;
  const std::vector<Edge> edges = includeEdges(src);
  ASSERT_FALSE(edges.empty());

  std::map<std::string, std::set<std::string>> graph;
  std::map<std::pair<std::string, std::string>, std::string> example;
  for (const Edge& e : edges) {
    graph[e.from].insert(e.to);
    example.emplace(std::pair{e.from, e.to}, e.file + " includes " + e.include);
    if (kBackends.count(e.from)) {
      EXPECT_EQ(e.to, "platform") << "a backend reaches beyond the platform's interfaces: " << e.file << " includes "
                                  << e.include;
    }
    if (kBackends.count(e.to)) {
      EXPECT_EQ(e.from, "app") << "only app/ may name a backend: " << e.file << " includes " << e.include;
    }
    if (e.from == "platform") {
      ADD_FAILURE() << "the platform's interfaces depend on nothing above them: " << e.file << " includes "
                    << e.include;
    }
  }
  const std::vector<std::string> cycle = findCycle(graph);
  std::string trail;
  for (std::size_t i = 0; i + 1 < cycle.size(); ++i) {
    trail += "\n  " + cycle[i] + " -> " + cycle[i + 1] + " (" + example[{cycle[i], cycle[i + 1]}] + ")";
  }
  EXPECT_TRUE(cycle.empty()) << "module cycle:" << trail;
}

// The checks themselves: a planted cycle is found and named.
TEST(Architecture, FindsACycle) {
  EXPECT_TRUE(findCycle({{"a", {"b"}}, {"b", {"c"}}}).empty());
  EXPECT_EQ(findCycle({{"a", {"b"}}, {"b", {"c"}}, {"c", {"a"}}}), (std::vector<std::string>{"a", "b", "c", "a"}));
  // A backend is a module of its own, or the backend checks would hold vacuously.
  EXPECT_EQ(moduleOf("platform/linux/logind.cpp"), "platform/linux");
}

}  // namespace
}  // namespace vigilo
