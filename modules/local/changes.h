#pragma once

#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"
#include "modules/local/folder.h"

// The operations that change names, as IProtocol_V2 describes them. What is stored has reached the
// disk when they return.
namespace tarn::local {

[[nodiscard]] AERROR MakeFolder(const Folder& folder, const char* path);
[[nodiscard]] AERROR RemoveFile(const Folder& folder, const char* path);
[[nodiscard]] AERROR RemoveFolder(const Folder& folder, const char* path);

// NOT_SUPPORTED: a folder while folders may not move, and a link that would leave its folder.
[[nodiscard]] AERROR MoveEntry(const Folder& folder, const char* from, const char* to,
                               bool may_move_folders);

[[nodiscard]] AERROR SetTime(const Folder& folder, const char* path, const FS_TIME& time);

}  // namespace tarn::local
