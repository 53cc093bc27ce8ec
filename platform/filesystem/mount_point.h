#pragma once

#include <string>
#include <sys/types.h>

#include "interfaces/aerror.h"

namespace tarn::fs {

// The folder at which a volume is mounted, and what the system says about it.
//
// Threads: any; Take before everything else.
class MountPoint {
 public:
  // Makes the folder where only it itself is missing, and finds out whether a volume may go there:
  // FS_MOUNT_POINT_ERROR when it is no folder, not empty, or in use already. Nothing is left behind
  // on failure.
  [[nodiscard]] AERROR Take(const std::string& wanted);
  // The opposite of Take, once nothing is mounted there any more.
  void GiveBack();

  // The name by which the system lists it; empty before Take.
  [[nodiscard]] const std::string& GetPath() const { return path; }

  // Remembers which volume is mounted now; false: none. The mount table tells, for the volume
  // itself must not be asked by the process that serves it: killed meanwhile, that process would
  // wait for its own answer and never end.
  [[nodiscard]] bool Confirm();
  // Whether the confirmed volume is mounted there still.
  [[nodiscard]] bool IsMounted() const;

  // Takes the confirmed volume away; with `detach` also when it is busy. True: it is gone.
  [[nodiscard]] bool Unmount(bool detach) const;

 private:
  std::string path;
  bool is_made = false;
  dev_t volume = 0;
};

// `path` with everything but its last component resolved; that last one is never asked, because it
// may be a volume that does not answer. Empty when the folder above does not exist.
[[nodiscard]] std::string ResolveFolderOf(const std::string& path);

// Whether anything is mounted exactly at `path`, which is resolved.
[[nodiscard]] bool IsMountPoint(const std::string& path);

}  // namespace tarn::fs
