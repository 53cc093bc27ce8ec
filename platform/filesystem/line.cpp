#include "platform/filesystem/line.h"

#include <algorithm>
#include <limits>

namespace tarn::fs {

namespace {

// Up to this an answer tells of the round trip, from there on of the speed.
constexpr size_t kSmallBytes = size_t{32} << 10;
constexpr int kRoundTripMemory = 32;  // a longer way is believed after about as many answers
constexpr double kMinSeconds = 1e-6;
constexpr double kWeightOfLast = 0.25;  // in the speed

}  // namespace

Line::Transfer Line::Begin() {
  const MutexLock guard(lock);
  return {Clock::now(), moved};
}

void Line::End(const Transfer& transfer, size_t bytes) {
  const auto taken = Clock::now() - transfer.begun;
  const MutexLock guard(lock);
  moved += bytes;
  if (bytes <= kSmallBytes) {
    const bool is_shorter = taken < round_trip || round_trip == Clock::duration::zero();
    round_trip = is_shorter ? taken : round_trip + (taken - round_trip) / kRoundTripMemory;
    return;
  }
  // What others moved meanwhile went over the same line. At most half of the time counts as waiting
  // for the first byte, so that a small error there is no large one in the speed.
  const std::chrono::duration<double> moving = taken - std::min(round_trip, taken / 2);
  const double speed =
      static_cast<double>(moved - transfer.moved_before) / std::max(moving.count(), kMinSeconds);
  bytes_per_second =
      bytes_per_second == 0 ? speed : bytes_per_second + kWeightOfLast * (speed - bytes_per_second);
}

Clock::duration Line::RoundTrip() const {
  const MutexLock guard(lock);
  return round_trip;
}

std::uint64_t Line::BytesIn(Clock::duration time) const {
  const MutexLock guard(lock);
  return bytes_per_second == 0
             ? std::numeric_limits<std::uint64_t>::max()
             : static_cast<std::uint64_t>(bytes_per_second *
                                          std::chrono::duration<double>(time).count());
}

}  // namespace tarn::fs
