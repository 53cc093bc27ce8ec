#include "platform/filesystem/path_locks.h"

#include <algorithm>
#include <utility>

#include "platform/filesystem/names.h"

namespace tarn::fs {

bool Meet(const std::vector<std::string>& some, const std::vector<std::string>& others) {
  return std::any_of(some.begin(), some.end(), [&](const std::string& one) {
    return std::any_of(others.begin(), others.end(), [&](const std::string& other) {
      return IsWithin(one, other) || IsWithin(other, one);
    });
  });
}

PathLocks::Hold& PathLocks::Hold::operator=(Hold&& other) noexcept {
  Release();
  owner = std::exchange(other.owner, nullptr);
  place = other.place;
  return *this;
}

void PathLocks::Hold::Release() {
  if (PathLocks* const locks = std::exchange(owner, nullptr); locks != nullptr) {
    const MutexLock guard(locks->lock);
    locks->requests.erase(place);
    locks->released.notify_all();
  }
}

PathLocks::Hold PathLocks::Take(std::vector<std::string> paths) {
  const MutexLock guard(lock);
  const auto mine = requests.insert(requests.end(), std::move(paths));
  while (std::any_of(requests.begin(), mine, [&](const std::vector<std::string>& earlier) {
    return Meet(earlier, *mine);
  })) {
    released.wait(lock);
  }
  return {this, mine};
}

}  // namespace tarn::fs
