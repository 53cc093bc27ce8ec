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

PathLocks::Hold PathLocks::Take(const std::vector<Claim>& claims) {
  std::vector<std::string> paths;
  for (const Claim& claim : claims) {
    paths.push_back(claim.path);
  }
  const MutexLock guard(lock);
  const auto mine = requests.emplace(requests.end(), std::move(paths));
  for (auto earlier = requests.begin(); earlier != mine; ++earlier) {
    for (const Claim& claim : claims) {
      const bool is_below =
          std::any_of(earlier->paths.begin(), earlier->paths.end(),
                      [&](const std::string& path) { return IsWithin(path, claim.path); });
      if (is_below && earlier->haste_of_others < claim.haste) {
        earlier->haste_of_others = claim.haste;
      }
    }
  }
  while (std::any_of(requests.begin(), mine,
                     [&](const Request& earlier) { return Meet(earlier.paths, mine->paths); })) {
    released.wait(lock);
  }
  return {this, mine};
}

}  // namespace tarn::fs
