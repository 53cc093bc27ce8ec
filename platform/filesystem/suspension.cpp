#include "platform/filesystem/suspension.h"

#include <ctime>

namespace tarn::fs {

namespace {

// The two clocks are not read at the same moment; and what was known just now is known yet after
// less.
constexpr std::chrono::nanoseconds kNap = std::chrono::seconds(2);

#if defined(__linux__)
constexpr clockid_t kAlways = CLOCK_BOOTTIME;
constexpr clockid_t kAwake = CLOCK_MONOTONIC;
#else
constexpr clockid_t kAlways = CLOCK_MONOTONIC;
constexpr clockid_t kAwake = CLOCK_UPTIME_RAW;
#endif

std::chrono::nanoseconds Read(clockid_t clock) {
  timespec time = {};
  (void)::clock_gettime(clock, &time);  // cannot fail for these
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

std::chrono::nanoseconds TimeAsleep() {
  return Read(kAlways) - Read(kAwake);
}

bool Suspension::HasResumed() {
  const auto now = source().count();
  auto before = known.load();
  return now - before > kNap.count() && known.compare_exchange_strong(before, now);
}

}  // namespace tarn::fs
