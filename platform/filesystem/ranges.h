#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>

namespace tarn::fs {

// Some bytes of a file.
struct Range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  // behind the last one
};

// A set of bytes, out of which parts are taken. Threads: none of its own.
class Ranges {
 public:
  explicit Ranges(std::uint64_t size = 0) {
    if (size > 0) {
      ends.emplace(0, size);
    }
  }

  [[nodiscard]] bool IsEmpty() const { return ends.empty(); }

  [[nodiscard]] std::uint64_t CountBytes() const {
    std::uint64_t bytes = 0;
    for (const auto& [begin, end] : ends) {
      bytes += end - begin;
    }
    return bytes;
  }

  // The first bytes of the set within `where`.
  [[nodiscard]] std::optional<Range> FirstIn(const Range& where) const {
    auto range = ends.upper_bound(where.begin);
    if (range != ends.begin() && std::prev(range)->second > where.begin) {
      --range;
    }
    if (range == ends.end() || range->first >= where.end) {
      return std::nullopt;
    }
    return Range{std::max(range->first, where.begin), std::min(range->second, where.end)};
  }

  void Take(const Range& taken) {
    while (const auto part = FirstIn(taken)) {
      const auto range = std::prev(ends.upper_bound(part->begin));
      const std::uint64_t end = range->second;
      if (range->first == part->begin) {
        ends.erase(range);
      } else {
        range->second = part->begin;
      }
      if (part->end < end) {
        ends.emplace(part->end, end);
      }
    }
  }

 private:
  std::map<std::uint64_t, std::uint64_t> ends;  // by begin; they do not touch
};

}  // namespace tarn::fs
