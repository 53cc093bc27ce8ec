#pragma once

#include <string>

#include "common/unique_fd.h"
#include "platform/cache/unit_map.h"

namespace tarn {

// The one file that holds the content of all blocks; removed with the object. One file, because a
// file for each block costs several times as much to write and to remove.
//
// Threads: any. Who reads units while they are written gets a mixture, and must find that out.
class BlockStore {
 public:
  enum class Outcome {
    kDone,
    kFull,    // the file system has no room for it
    kFailed,  // errno says why
  };

  explicit BlockStore(std::string file_path) : path(std::move(file_path)) {}
  ~BlockStore();
  BlockStore(const BlockStore&) = delete;
  BlockStore& operator=(const BlockStore&) = delete;

  // Makes the file, for its owner alone. False when it cannot be made or is there already.
  [[nodiscard]] bool Create();

  // Puts `length` bytes from the units at `buffer`; false when they cannot be read.
  [[nodiscard]] bool Read(const UnitRuns& runs, void* buffer, size_t length) const;
  [[nodiscard]] Outcome Write(const UnitRuns& runs, const void* data, size_t length) const;

  // Gives the disk space of the units back, where the file system can do that.
  void Discard(const UnitRuns& runs) const;

 private:
  std::string path;
  UniqueFd file;
};

}  // namespace tarn
