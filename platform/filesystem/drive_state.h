#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/sync.h"
#include "platform/filesystem/listings.h"
#include "platform/filesystem/nodes.h"
#include "platform/filesystem/open_files.h"
#include "platform/filesystem/path_locks.h"

namespace tarn::fs {

// What this side knows of a drive: the state that all who work on the drive share.
//
// Owned by the FileSystem.
// Threads: any.
// Locks:   `lock` guards all of the state, the fields of open files too, and comes before a work
//          file's own. Nobody holds it while the remote or the disk works, nor while an event is
//          told. The right to change places comes before every lock.
class DriveState {
 public:
  explicit DriveState(Clock::duration believed_for) : listings(believed_for), open_files(nodes) {}

  // The right to change some places at the remote, whose paths go to `paths`; changes that meet
  // happen one after the other. Unset when a place does not exist.
  struct Change {
    Place place;
    Haste haste = Haste::kNone;
  };
  [[nodiscard]] std::optional<PathLocks::Hold> HoldPlaces(const std::vector<Change>& changed,
                                                          std::vector<std::string>& paths)
      TARN_EXCLUDES(lock);

  mutable Mutex lock;
  Nodes nodes TARN_GUARDED_BY(lock);
  Listings listings TARN_GUARDED_BY(lock);
  OpenFiles open_files TARN_GUARDED_BY(lock);

 private:
  [[nodiscard]] bool GetPaths(const std::vector<Change>& changed,
                              std::vector<std::string>& paths) const TARN_REQUIRES(lock);

  PathLocks changes;
};

}  // namespace tarn::fs
