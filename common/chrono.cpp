#include "common/chrono.h"

using std::chrono::steady_clock;

Chrono::Chrono() : start(steady_clock::now()) {}

void Chrono::reset() {
  start = steady_clock::now();
}

std::int64_t Chrono::elapsed() const {
  const steady_clock::duration passed = steady_clock::now() - start;
  return std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
}

void CheckInterval::SetCheckPoint() {
  checkpoint_set = true;
  reset();
}

bool CheckInterval::IsPassed(std::int64_t interval_ms) const {
  return !checkpoint_set || elapsed() >= interval_ms;
}
