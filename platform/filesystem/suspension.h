#pragma once

#include <atomic>
#include <chrono>
#include <functional>

namespace tarn::fs {

// How long the machine has slept since it was started.
[[nodiscard]] std::chrono::nanoseconds TimeAsleep();

// Notices that the machine has slept.
//
// Threads: any. Cheap enough to be asked for every request.
class Suspension {
 public:
  using Source = std::function<std::chrono::nanoseconds()>;

  explicit Suspension(Source asleep) : source(std::move(asleep)), known(source().count()) {}

  // True for the first who asks after the machine has slept.
  [[nodiscard]] bool HasResumed();

 private:
  const Source source;
  std::atomic<std::chrono::nanoseconds::rep> known;
};

}  // namespace tarn::fs
