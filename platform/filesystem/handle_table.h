#pragma once

#include <cstdint>
#include <unordered_map>
#include <utility>

namespace tarn::fs {

// What programs have open, under the numbers by which the kernel asks for it.
//
// Threads: none of its own; the owner's lock guards every call.
template <typename Open>
class HandleTable {
 public:
  std::uint64_t Add(Open open) {
    opened.emplace(next, std::move(open));
    return next++;
  }
  [[nodiscard]] Open* Find(std::uint64_t handle) {  // null: there is none
    const auto found = opened.find(handle);
    return found == opened.end() ? nullptr : &found->second;
  }
  void Remove(std::uint64_t handle) { opened.erase(handle); }
  void Clear() { opened.clear(); }

 private:
  std::unordered_map<std::uint64_t, Open> opened;
  std::uint64_t next = 1;
};

}  // namespace tarn::fs
