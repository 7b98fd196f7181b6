#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

#include "platform/run_loop.h"

namespace vigilo::test {

// Runs a real loop until something stops it, or stops it itself after
// `limit`, so that a missing event fails the test instead of hanging it.
// False when the limit stopped it.
inline bool runBounded(RunLoop& loop, std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
  std::atomic<bool> timedOut = false;
  std::jthread guard([&](std::stop_token stop) {
    std::mutex mutex;
    std::unique_lock lock(mutex);
    if (std::condition_variable_any().wait_for(lock, stop, limit, [&] { return stop.stop_requested(); })) return;
    timedOut = true;
    loop.stop();
  });
  loop.run();
  guard.request_stop();
  guard.join();
  return !timedOut;
}

}  // namespace vigilo::test
