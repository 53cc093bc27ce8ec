#include "platform/filesystem/drive_state.h"

#include <utility>

namespace tarn::fs {

bool DriveState::GetPaths(const std::vector<Place>& places, std::vector<std::string>& paths) const {
  paths.clear();
  for (const Place& place : places) {
    auto path = place.name.empty() ? nodes.PathOf(place.ino) : nodes.PathOf(place.ino, place.name);
    if (!path) {
      return false;
    }
    paths.push_back(std::move(*path));
  }
  return true;
}

std::optional<PathLocks::Hold> DriveState::HoldPlaces(const std::vector<Place>& places,
                                                      std::vector<std::string>& paths) {
  {
    const MutexLock guard(lock);
    if (!GetPaths(places, paths)) {
      return std::nullopt;
    }
  }
  for (;;) {
    PathLocks::Hold hold = changes.Take(paths);
    std::vector<std::string> paths_now;
    const MutexLock guard(lock);
    if (!GetPaths(places, paths_now)) {
      return std::nullopt;
    }
    if (paths_now == paths) {
      return hold;
    }
    paths = std::move(paths_now);  // renamed while this waited
  }
}

}  // namespace tarn::fs
