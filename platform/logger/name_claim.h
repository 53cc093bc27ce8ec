#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/unique_fd.h"

namespace tarn {

// A name that one holder among all processes has until it lets go of it or dies. Held as an
// advisory lock on a file of its own, so that a crash frees it.
class NameClaim {
 public:
  // Empty when `name` is held, in this process or another, or `folder` takes no lock files.
  static std::optional<NameClaim> Take(const std::string& folder, std::string_view name);

  // The file for a name of any length and bytes: it is a plain file name, and two names share one
  // only by a hash collision of names longer than 60 bytes.
  static std::string FileName(std::string_view name);

  NameClaim(NameClaim&&) = default;
  NameClaim& operator=(NameClaim&&) = delete;
  ~NameClaim();

 private:
  NameClaim(std::string file_path, UniqueFd lock_fd);

  std::string path;
  UniqueFd lock;
};

}  // namespace tarn
