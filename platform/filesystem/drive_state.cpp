#include "platform/filesystem/drive_state.h"

#include <utility>

namespace tarn::fs {

bool DriveState::GetPaths(const std::vector<Change>& changed,
                          std::vector<std::string>& paths) const {
  paths.clear();
  for (const auto& [place, haste] : changed) {
    auto path = place.name.empty() ? nodes.PathOf(place.ino) : nodes.PathOf(place.ino, place.name);
    if (!path) {
      return false;
    }
    paths.push_back(std::move(*path));
  }
  return true;
}

std::optional<PathLocks::Hold> DriveState::HoldPlaces(const std::vector<Change>& changed,
                                                      std::vector<std::string>& paths) {
  {
    const MutexLock guard(lock);
    if (!GetPaths(changed, paths)) {
      return std::nullopt;
    }
  }
  for (;;) {
    std::vector<PathLocks::Claim> claims;
    for (size_t i = 0; i < paths.size(); ++i) {
      claims.push_back({paths[i], changed[i].haste});
    }
    PathLocks::Hold hold = changes.Take(claims);
    std::vector<std::string> paths_now;
    const MutexLock guard(lock);
    if (!GetPaths(changed, paths_now)) {
      return std::nullopt;
    }
    if (paths_now == paths) {
      return hold;
    }
    paths = std::move(paths_now);  // renamed while this waited
  }
}

}  // namespace tarn::fs
