#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/sync.h"
#include "common/unique_fd.h"

namespace tarn::fs {

// The bytes of one file on this machine's disk. Whoever holds a share of it relies on them: they
// are changed only by one who holds the only share.
//
// Owns:    the local file, which goes with this object unless it is kept.
// Threads: any; bytes are moved without a lock. The lock guards the descriptor and the name.
// Errors:  0 or an errno value.
class Content {
 public:
  // An empty one in `folder`. Without a name it ends with the process in any case; with one it can
  // be kept, and needs no descriptor while nobody uses it.
  [[nodiscard]] static int Make(const std::string& folder, bool is_named,
                                std::shared_ptr<Content>& content);
  // One that an earlier process has kept.
  [[nodiscard]] static int Open(const std::string& path, std::shared_ptr<Content>& content);

  // `file_path` is empty for a nameless one.
  Content(UniqueFd file, std::string in_folder, std::string file_path, bool is_kept);
  ~Content();
  Content(const Content&) = delete;
  Content& operator=(const Content&) = delete;

  [[nodiscard]] int Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) const;
  // Writes all of it unless it fails; `written` says how much came there.
  [[nodiscard]] int Write(std::uint64_t offset, const void* data, size_t length, size_t& written);
  [[nodiscard]] int SetSize(std::uint64_t size);
  // Another one with the first `length` bytes of this one, in the same folder, named if this is.
  [[nodiscard]] int Copy(std::uint64_t length, std::shared_ptr<Content>& copy) const;

  // Gives a named one another name in its folder; from now on it outlives this object.
  [[nodiscard]] int KeepAs(const std::string& path);
  void Discard();  // goes with this object again
  [[nodiscard]] bool IsKept() const;
  [[nodiscard]] std::string Path() const;  // empty: it has no name
  // Closes the descriptor of a named one until it is used again.
  void LetGo();

 private:
  using Descriptor = std::shared_ptr<const UniqueFd>;
  [[nodiscard]] int Use(Descriptor& descriptor) const;

  mutable Mutex lock;
  mutable Descriptor fd TARN_GUARDED_BY(lock);
  std::string path TARN_GUARDED_BY(lock);
  bool kept TARN_GUARDED_BY(lock);
  const std::string folder;
};

}  // namespace tarn::fs
