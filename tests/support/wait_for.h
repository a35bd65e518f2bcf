// A bounded wait for a condition another thread makes true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace dtl_test {

// Polls cond until it holds or the limit (5 s unless given) has passed.
inline bool WaitFor(const std::function<bool()>& cond,
                    std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace dtl_test
