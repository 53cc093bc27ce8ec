#include "platform/cache/checksum.h"

#include <array>
#include <cstring>

namespace tarn {

namespace {

constexpr size_t kLanes = 8;
constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15;  // odd, with bits all over
using Lanes = std::array<std::uint64_t, kLanes>;

// Two sums a lane, of the words and of the sums so far, so that the order counts. Eight lanes side
// by side are what the compiler turns into vector instructions.
struct Sums {
  void Add(const void* words) {
    Lanes next;
    std::memcpy(next.data(), words, sizeof(next));
    for (size_t lane = 0; lane < kLanes; ++lane) {
      first[lane] += next[lane];
      second[lane] += first[lane];
    }
  }

  Lanes first{};
  Lanes second{};
};

}  // namespace

std::uint64_t Checksum(const void* data, size_t length_bytes) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  Sums sums;
  size_t done = 0;
  for (; done + sizeof(Lanes) <= length_bytes; done += sizeof(Lanes)) {
    sums.Add(bytes + done);
  }
  if (done < length_bytes) {
    std::array<unsigned char, sizeof(Lanes)> rest{};
    std::memcpy(rest.data(), bytes + done, length_bytes - done);
    sums.Add(rest.data());
  }
  std::uint64_t checksum = length_bytes;
  for (size_t lane = 0; lane < kLanes; ++lane) {
    checksum = (checksum ^ sums.first[lane]) * kMix;
    checksum = (checksum ^ checksum >> 32 ^ sums.second[lane]) * kMix;
  }
  return checksum;
}

}  // namespace tarn
