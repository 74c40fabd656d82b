// Waiting for what another thread or process does.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kelo_test {

// Polls `done` until it holds or `limit` passed; the limit only bounds a
// broken test, it is not a speed requirement.
inline bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace kelo_test
