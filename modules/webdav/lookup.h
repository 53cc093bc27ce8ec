#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"
#include "modules/webdav/multistatus.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// What the server says about its folder itself, quota included.
[[nodiscard]] AERROR FindRoot(Remote& remote, Resource& root, Answer& answer);

// Operations of IProtocol_V2 of the same name, on paths from IsDrivePath.
[[nodiscard]] AERROR GetInfo(Remote& remote, const std::string& path, FS_INFO& info);
[[nodiscard]] AERROR List(Remote& remote, const std::string& path, FS_LIST_SINK sink,
                          void* context);
// SUCCESS for an empty folder, DIR_NOT_EMPTY for one that holds anything, also what a listing
// leaves out: servers delete a folder with all of it.
[[nodiscard]] AERROR CheckEmpty(Remote& remote, const std::string& path);
[[nodiscard]] AERROR GetQuota(Remote& remote, unsigned long long& total, unsigned long long& free);

}  // namespace tarn::webdav
