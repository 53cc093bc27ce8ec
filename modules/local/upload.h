#pragma once

#include "common/sync.h"
#include "common/throttle.h"
#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"
#include "modules/local/folder.h"

namespace tarn::local {

struct Progress {
  FS_PROGRESS report;  // null: nobody wants to know
  void* context;
};

// Stores `size` bytes of `source` as the file `path`, as IProtocol_V2::Upload says. `commit_lock`
// is held while the version is compared and the file takes its place, so that of two uploads that
// replace the same version one fails. A program that changes the folder directly is outside of it.
[[nodiscard]] AERROR StoreFile(const Folder& folder, const char* path, FS_SOURCE& source,
                               unsigned long long size, Throttle& throttle, Progress progress,
                               Mutex& commit_lock);

}  // namespace tarn::local
