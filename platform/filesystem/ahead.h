#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/filesystem/background.h"
#include "platform/filesystem/drive_state.h"
#include "platform/filesystem/finder.h"
#include "platform/filesystem/remote.h"
#include "platform/filesystem/small_files.h"

namespace tarn::fs {

// Fetches what programs are likely to want next, in the bound queue, a bounded number of requests
// at a time: the listings of the folders in one that was listed, and small files as SmallFiles
// plans it, which go to the bound cache.
//
// Owned by what `owner` gives a share of; refers to its state, remote and finder.
// Threads: any.
// Locks:   the state's, which guards the plan too; none is held while the remote works.
class Ahead {
 public:
  Ahead(DriveState& shared, Remote& asked, Finder& finding, Owner part_of)
      : drive(shared),
        remote(asked),
        finder(finding),
        owner(std::move(part_of)),
        small(shared.nodes, shared.listings) {}

  // A program has listed a folder.
  void Listed(const std::string& folder, const std::vector<Entry>& entries)
      TARN_EXCLUDES(drive.lock);
  // A program has opened a file, which took so long; `was_missing`: of its content nothing was
  // here.
  void Opened(const OpenFile& file, bool was_missing, Clock::duration waited)
      TARN_EXCLUDES(drive.lock);

 private:
  [[nodiscard]] bool Start(std::function<void()> work) TARN_EXCLUDES(drive.lock);
  void FetchSmallFiles() TARN_EXCLUDES(drive.lock);
  void FetchFile(Ino folder, const std::string& name) TARN_EXCLUDES(drive.lock);
  [[nodiscard]] bool Read(const std::string& path, const Attributes& expected,
                          const std::shared_ptr<Buffer>& content) TARN_EXCLUDES(drive.lock);

  DriveState& drive;
  Remote& remote;
  Finder& finder;
  const Owner owner;
  int tasks TARN_GUARDED_BY(drive.lock) = 0;
  SmallFiles small TARN_GUARDED_BY(drive.lock);
};

}  // namespace tarn::fs
