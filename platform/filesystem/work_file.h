#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/sync.h"
#include "common/unique_fd.h"
#include "interfaces/fs_types.h"

namespace tarn::fs {

// The content of one file that is being changed, as a local file. What programs write goes here;
// from here it is sent.
//
// Owns:    the local file, which has no name and so ends with this object and with the process.
// Threads: any. Content is moved without a lock (the file system below orders it); the lock guards
//          what is known about it.
// Errors:  0 or an errno value.
class WorkFile {
 public:
  // An empty one in the bound cache's folder, else in the temporary folder.
  [[nodiscard]] static int Make(std::shared_ptr<WorkFile>& file);

  explicit WorkFile(UniqueFd content) : fd(std::move(content)) {}

  [[nodiscard]] int Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) const;
  // May write less than asked for, as write(2) does.
  [[nodiscard]] int Write(std::uint64_t offset, const void* data, size_t length, size_t& written);
  [[nodiscard]] int SetSize(std::uint64_t size);
  // Fills in what the remote has; no change.
  [[nodiscard]] int Fill(std::uint64_t offset, const void* data, size_t length);

  [[nodiscard]] std::uint64_t GetSize() const;
  [[nodiscard]] FS_TIME GetModified() const;
  void SetModified(const FS_TIME& time);       // a change
  void SetFilled(const FS_TIME& remote_time);  // the content is that of the remote

  // One state of the content. A write during an upload makes the state that was sent an old one.
  struct State {
    std::uint64_t change;
    std::uint64_t size;
    FS_TIME modified;
  };
  [[nodiscard]] State GetState() const;
  [[nodiscard]] bool IsDirty() const;
  void MarkDirty();  // even without a change: the remote is to get it
  void MarkStored(const State& stored);

 private:
  void Changed() TARN_REQUIRES(lock);

  const UniqueFd fd;
  mutable Mutex lock;
  State state TARN_GUARDED_BY(lock) = {};
  std::uint64_t stored_change TARN_GUARDED_BY(lock) = 0;
};

[[nodiscard]] FS_TIME Now();

}  // namespace tarn::fs
