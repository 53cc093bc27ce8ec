#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <sys/types.h>

#include "common/sync.h"
#include "interfaces/fs_types.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/content.h"
#include "platform/filesystem/ranges.h"

namespace tarn::fs {

// The content of one file that is being changed, as a local file. What programs write goes here.
// From here it is sent in snapshots: a change after one was taken goes to a copy, so that what is
// on its way, or is to be sent after a crash, never is half of one state and half of another.
//
// Owns:    a share of the content.
// Threads: any.
// Locks:   `changing` is held while bytes are written or copied, and comes before `lock`, which
//          guards what is known about them. Reading needs neither while it moves bytes.
// Errors:  0 or an errno value.
class WorkFile {
 public:
  // One state of the content.
  struct State {
    std::uint64_t change;  // counts
    std::uint64_t size;    // bytes
    FS_TIME modified;
  };
  struct Snapshot {
    std::shared_ptr<Content> content;  // stays as it is while this lives
    State state = {};
    std::shared_ptr<std::atomic<std::uint64_t>> sent_bytes;  // of the attempt that came furthest
  };

  // The remote's file. `read` gives at least one byte, and the first `length` bytes of the file at
  // the most.
  struct Base {
    std::function<int(std::uint64_t offset, void* buffer, size_t length, size_t& received)> read;
    std::uint64_t size = 0;  // bytes
  };

  explicit WorkFile(std::shared_ptr<Content> empty);
  // One that waits to be sent.
  WorkFile(std::shared_ptr<Content> unsent, std::uint64_t size, const FS_TIME& modified);

  // Before anybody else knows of this object: it is the remote's file.
  [[nodiscard]] int SetBase(Base remote_file);
  // Fetches what is missing. Before a snapshot is taken. ESTALE: the remote's file has changed.
  [[nodiscard]] int Complete() { return Fetch({0, kMaxSize}, Clock::time_point::max()); }
  // Fetches what is missing where that is little, and what of it comes in a short time.
  [[nodiscard]] int CompleteSoon(std::uint64_t at_most_bytes, Clock::duration time);
  [[nodiscard]] bool IsComplete() const;

  [[nodiscard]] int Read(std::uint64_t offset, void* buffer, size_t length, size_t& received);
  // May write less than asked for, as write(2) does.
  [[nodiscard]] int Write(std::uint64_t offset, const void* data, size_t length, size_t& written);
  [[nodiscard]] int Append(const void* data, size_t length, size_t& written);
  [[nodiscard]] int SetSize(std::uint64_t size);
  [[nodiscard]] std::uint64_t GetSize() const;
  void SetModified(const FS_TIME& time);  // no change of the content

  [[nodiscard]] State GetState() const;
  [[nodiscard]] Snapshot TakeSnapshot();
  [[nodiscard]] bool IsDirty() const;
  void MarkDirty();  // even without a change: the remote is to get it
  void MarkStored(const State& stored);
  void LetGo();  // of the descriptor, until it is used again

 private:
  static constexpr std::uint64_t kMaxSize = std::numeric_limits<off_t>::max();

  [[nodiscard]] int WriteAt(std::uint64_t offset, const void* data, size_t length, size_t& written)
      TARN_REQUIRES(changing);
  [[nodiscard]] int Fetch(const Range& needed, Clock::time_point until);
  // Takes bytes of the remote's file, but where something was written meanwhile.
  [[nodiscard]] int Fill(const Range& range, const char* data) TARN_EXCLUDES(changing, lock);
  // Returns what is not needed any more, to end after the locks.
  std::shared_ptr<const Base> NotMissing(const Range& range) TARN_REQUIRES(lock);
  [[nodiscard]] int MakeOwn(std::uint64_t keep_bytes) TARN_REQUIRES(changing);
  [[nodiscard]] std::shared_ptr<Content> GetContent() const;
  void Changed() TARN_REQUIRES(lock);

  Mutex changing;
  mutable Mutex lock;
  std::shared_ptr<Content> content TARN_GUARDED_BY(lock);
  std::weak_ptr<std::shared_ptr<Content>> snapshots TARN_GUARDED_BY(lock);  // those of `content`
  State state TARN_GUARDED_BY(lock) = {};
  std::uint64_t stored_change TARN_GUARDED_BY(lock) = 0;
  std::shared_ptr<const Base> base TARN_GUARDED_BY(lock);  // while bytes of it are missing
  Ranges missing TARN_GUARDED_BY(lock);
};

[[nodiscard]] FS_TIME Now();

}  // namespace tarn::fs
