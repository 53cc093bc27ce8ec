#pragma once

#include <string>

#include "common/unique_fd.h"
#include "interfaces/aerror.h"

namespace tarn::local {

// A file that is being written under a hidden name beside the one it will get. Goes away unless it
// is committed. It stays locked (flock) while it is open, so that what a killed process left behind
// can be told from work under way. One thread.
class StagedFile {
 public:
  explicit StagedFile(int target_folder) : folder(target_folder) {}  // borrowed
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;
  ~StagedFile();

  [[nodiscard]] AERROR Create();
  [[nodiscard]] int GetFd() const { return file.get(); }

  // Gives the file its name in one step, after its content was flushed. SHARING_VIOLATION:
  // something has that name, and `may_replace` is false.
  [[nodiscard]] AERROR Commit(const std::string& final_name, bool may_replace);

 private:
  int folder;
  UniqueFd file;
  std::string name;  // empty: nothing to remove
};

// Waits until what was written to a file or folder is on the disk. False with errno set.
[[nodiscard]] bool Flush(int fd);

// Waits until the names in a folder, given as for the ...at calls, are on the disk. A folder that
// cannot be opened for it is left to the system.
void FlushFolder(int folder);

// Removes the work file of an upload if no process is writing it any more.
void RemoveAbandonedWorkFile(int folder, const char* name);

}  // namespace tarn::local
