#pragma once

#include <string>

#include "common/unique_fd.h"

// Folders that several processes of one user share. Any thread.
namespace tarn {

// The home folder: the environment's, else the account's; empty when neither is known.
[[nodiscard]] std::string HomeFolder();

// A drive's label as the name of one folder: it never leads out of the folder above.
[[nodiscard]] std::string FolderName(const std::string& label);

enum class Claim { kOurs, kInUse, kGone, kFailed };

// Locks a folder against other processes, for as long as `lock` lives. kFailed also when it is not
// a folder but a link to one.
[[nodiscard]] Claim LockFolder(const std::string& path, UniqueFd& lock);

// Makes the folder `path` if it is missing (not the ones above it) and locks it. What stands there
// and is no folder of its own, a symbolic link for instance, is removed first.
[[nodiscard]] Claim ClaimFolder(const std::string& path, mode_t mode, UniqueFd& lock);

}  // namespace tarn
