// Round-trip time of a `tools/call` of vigilo_status through `vigilo mcp`,
// as an agent waits for it: from writing the request line to reading the
// answer line, with the app answering on the simulated laptop.
//
//   vigilo_bench_mcp_latency [calls]

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands/channel.h"

// The test helper for children on pipes; a header only, so no test library
// is needed here.
#include "../tests/e2e/piped_process.h"

namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;
using vigilo::test::PipedProcess;

double percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  const double at = p * static_cast<double>(v.size() - 1);
  const auto lo = static_cast<std::size_t>(at);
  const std::size_t hi = std::min(lo + 1, v.size() - 1);
  return v[lo] + (v[hi] - v[lo]) * (at - static_cast<double>(lo));
}

// Sends one line and gives the answer, or null when none came in time.
json exchange(PipedProcess& server, const std::string& line) {
  if (!server.write(line + "\n")) return nullptr;
  auto answer = server.readLine(20s);
  if (!answer) return nullptr;
  return json::parse(*answer, nullptr, false);
}

bool statusOk(const json& answer) {
  return answer.is_object() && answer.contains("result") && answer["result"].value("isError", true) == false;
}

int measure(const std::string& home, int calls) {
  PipedProcess app({VIGILO_BINARY, "app", "--simulate", home + "/laptop.json"}, {"VIGILO_HOME=" + home},
                   home + "/app.txt", true);
  // Started before the app holds its folder, the server's first call would
  // try to start an app of its own.
  const auto locked = std::chrono::steady_clock::now() + 20s;
  while (!vigilo::runningApp(home) && std::chrono::steady_clock::now() < locked) std::this_thread::sleep_for(20ms);
  PipedProcess server({VIGILO_BINARY, "mcp"}, {"VIGILO_HOME=" + home, "VIGILO_NO_AUTOSTART=1"}, home + "/mcp-err.txt");
  const std::string call =
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"vigilo_status","arguments":{}}})";
  json init = exchange(server, R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":)"
                               R"("2025-11-25","capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})");
  if (!init.is_object() || !init.contains("result")) {
    std::fprintf(stderr, "vigilo mcp did not answer initialize\n");
    return 1;
  }
  server.write(R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
               "\n");

  // Until the app listens, a call waits for it; the first answers also warm
  // the page cache.
  const auto ready = std::chrono::steady_clock::now() + 20s;
  int warm = 0;
  while (warm < 10 && std::chrono::steady_clock::now() < ready) {
    if (statusOk(exchange(server, call))) ++warm;
  }
  if (warm < 10) {
    std::fprintf(stderr, "the app never answered vigilo_status\n");
    return 1;
  }

  // Interleaved with the same request sent straight on the channel, so that
  // load elsewhere hits both alike and the server's own share shows.
  vigilo::RequestClient channel(home);
  std::vector<double> times;
  std::vector<double> direct;
  for (int i = 0; i < calls; ++i) {
    auto start = std::chrono::steady_clock::now();
    json answer = exchange(server, call);
    auto end = std::chrono::steady_clock::now();
    if (!statusOk(answer)) {
      std::fprintf(stderr, "call %d failed: %s\n", i, answer.dump().c_str());
      return 1;
    }
    times.push_back(std::chrono::duration<double, std::milli>(end - start).count());
    start = std::chrono::steady_clock::now();
    json reply = channel.send("status", json::object(), 8);
    end = std::chrono::steady_clock::now();
    if (reply.value("ok", false) != true) {
      std::fprintf(stderr, "direct request %d failed: %s\n", i, reply.dump().c_str());
      return 1;
    }
    direct.push_back(std::chrono::duration<double, std::milli>(end - start).count());
  }
  server.closeInput();
  const int serverExit = server.wait(10s);
  app.signal(SIGTERM);
  app.wait(10s);
  if (serverExit != 0) {
    std::fprintf(stderr, "vigilo mcp exited with %d\n", serverExit);
    return 1;
  }

  auto report = [](const char* what, const std::vector<double>& t) {
    std::printf("%s median %.3f ms, p90 %.3f ms, fastest %.3f ms, slowest %.3f ms\n", what, percentile(t, 0.5),
                percentile(t, 0.9), *std::min_element(t.begin(), t.end()), *std::max_element(t.begin(), t.end()));
  };
  std::printf("round trips: %d each\n", calls);
  report("tools/call vigilo_status through vigilo mcp:", times);
  report("status request straight on the channel:     ", direct);
  std::printf("target: tools/call median under 10 ms\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  char tmpl[] = "/tmp/vigilo-bench-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string home = tmpl;
  const int status = measure(home, calls);
  std::error_code ec;
  std::filesystem::remove_all(home, ec);
  return status;
}
