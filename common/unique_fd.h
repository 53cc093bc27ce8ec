#pragma once

#include <unistd.h>
#include <utility>

namespace tarn {

// One descriptor, closed on destruction and on replacement; moves, never copies.
class UniqueFd {
 public:
  explicit UniqueFd(int owned = -1) : fd(owned) {}
  UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return fd; }
  [[nodiscard]] bool valid() const { return fd >= 0; }
  [[nodiscard]] int release() { return std::exchange(fd, -1); }
  void reset(int owned = -1) {
    if (int old = std::exchange(fd, owned); old >= 0) {
      ::close(old);
    }
  }

 private:
  int fd;
};

}  // namespace tarn
