#include "platform/cache/unit_map.h"

#include <algorithm>
#include <bit>

namespace tarn {

namespace {

constexpr std::uint32_t kWordUnits = 64;
constexpr std::uint64_t kAllUsed = ~std::uint64_t{0};

}  // namespace

UnitRuns UnitMap::Take(std::uint32_t count) {
  UnitRuns runs;
  for (; count > 0; --count) {
    const std::uint32_t unit = TakeLowest();
    if (!runs.empty() && runs.back().first + runs.back().count == unit) {
      ++runs.back().count;
    } else {
      runs.push_back({unit, 1});
    }
  }
  return runs;
}

std::uint32_t UnitMap::TakeLowest() {
  while (first_free_word < words.size() && words[first_free_word] == kAllUsed) {
    ++first_free_word;
  }
  if (first_free_word == words.size()) {
    words.push_back(0);
  }
  std::uint64_t& word = words[first_free_word];
  const int bit = std::countr_one(word);
  word |= std::uint64_t{1} << bit;
  ++used_units;
  return static_cast<std::uint32_t>(first_free_word) * kWordUnits + static_cast<std::uint32_t>(bit);
}

void UnitMap::Give(const UnitRuns& runs) {
  for (const UnitRun& run : runs) {
    for (std::uint32_t unit = run.first; unit < run.first + run.count; ++unit) {
      words[unit / kWordUnits] &= ~(std::uint64_t{1} << unit % kWordUnits);
    }
    first_free_word = std::min<size_t>(first_free_word, run.first / kWordUnits);
    used_units -= run.count;
  }
}

}  // namespace tarn
