#pragma once

#include <chrono>
#include <cstdint>

// Stopwatches on the monotonic clock. One thread at a time.

// Runs from its construction, or its last reset, on.
class Chrono {
 public:
  Chrono();
  virtual ~Chrono() = default;
  Chrono(const Chrono&) = default;
  Chrono& operator=(const Chrono&) = default;

  void reset();
  // Whole milliseconds, cut off.
  [[nodiscard]] std::int64_t elapsed() const;

 private:
  std::chrono::steady_clock::time_point start;
};

// Tells whether an interval has passed since the last checkpoint. Before the first one, every
// interval has.
class CheckInterval : public Chrono {
 public:
  void SetCheckPoint();
  [[nodiscard]] bool IsPassed(std::int64_t interval_ms) const;

 private:
  bool checkpoint_set = false;
};
