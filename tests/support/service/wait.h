#pragma once

#include <chrono>
#include <poll.h>

namespace tarn::test {

inline constexpr std::chrono::seconds kPatience{30};  // what should take no time at all

// Looks every 10 ms until `condition` holds. False when it did not before the time had passed.
template <typename Condition>
[[nodiscard]] bool WaitUntil(Condition condition, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    (void)::poll(nullptr, 0, 10);
  }
  return true;
}

}  // namespace tarn::test
