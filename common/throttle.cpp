#include "common/throttle.h"

#include <algorithm>

namespace tarn {

namespace {

constexpr long long kLargestPartBytes = 256LL * 1024;
constexpr long long kSmallestPartBytes = 1024;
constexpr long long kPartsPerSecond = 10;

}  // namespace

void Throttle::SetLimit(long long bytes_per_second) {
  const MutexLock hold(lock);
  limit = std::max(bytes_per_second, 0LL);
  free_at = Clock::now();
  changed.notify_all();
}

long long Throttle::GetLimit() {
  const MutexLock hold(lock);
  return limit;
}

void Throttle::CancelAll() {
  const MutexLock hold(lock);
  ++cancelled;
  changed.notify_all();
}

Throttle::Ticket Throttle::Begin() {
  const MutexLock hold(lock);
  return cancelled;
}

bool Throttle::IsCancelled(Ticket ticket) {
  const MutexLock hold(lock);
  return ticket != cancelled;
}

bool Throttle::Rest(Ticket ticket, std::chrono::milliseconds duration) {
  const MutexLock hold(lock);
  const Clock::time_point end = Clock::now() + duration;
  while (ticket == cancelled && Clock::now() < end) {
    (void)changed.wait_until(lock, end);
  }
  return ticket == cancelled;
}

long long Throttle::PartBytes() {
  const MutexLock hold(lock);
  if (limit == 0) {
    return kLargestPartBytes;
  }
  return std::clamp(limit / kPartsPerSecond, kSmallestPartBytes, kLargestPartBytes);
}

bool Throttle::Pass(Ticket ticket, long long bytes) {
  const MutexLock hold(lock);
  if (limit > 0) {
    const std::chrono::duration<double> cost(static_cast<double>(bytes) /
                                             static_cast<double>(limit));
    free_at = std::max(free_at, Clock::now()) + std::chrono::duration_cast<Clock::duration>(cost);
    const Clock::time_point mine = free_at;
    // A new limit moves free_at back to the present, which releases those who wait for the old one.
    while (ticket == cancelled && std::min(mine, free_at) > Clock::now()) {
      (void)changed.wait_until(lock, std::min(mine, free_at));
    }
  }
  return ticket == cancelled;
}

}  // namespace tarn
