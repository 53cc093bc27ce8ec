#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn {

// The store file is divided into units. A block takes as many as it needs, not always neighbours.
inline constexpr std::uint64_t kUnitBytes = 64UL * 1024;

struct UnitRun {
  std::uint32_t first;
  std::uint32_t count;
};
using UnitRuns = std::vector<UnitRun>;  // in the order of the block's bytes

// Which units are in use. The lowest free ones are taken first, so that the file grows only when it
// must and what was freed is written again. Not thread-safe.
class UnitMap {
 public:
  // Units that are taken and not given back.
  [[nodiscard]] std::uint32_t used() const { return used_units; }

  UnitRuns Take(std::uint32_t count);
  void Give(const UnitRuns& runs);

 private:
  std::uint32_t TakeLowest();

  std::vector<std::uint64_t> words;  // one bit a unit, set: in use; grows with the highest unit
  size_t first_free_word = 0;        // no word before it has a free unit
  std::uint32_t used_units = 0;
};

}  // namespace tarn
