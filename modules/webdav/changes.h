#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// Operations of IProtocol_V2 of the same name, on paths from IsDrivePath.
[[nodiscard]] AERROR CreateFolder(Remote& remote, const std::string& path);
[[nodiscard]] AERROR DeleteFile(Remote& remote, const std::string& path);
[[nodiscard]] AERROR DeleteFolder(Remote& remote, const std::string& path);
[[nodiscard]] AERROR Move(Remote& remote, const std::string& from, const std::string& to,
                          bool may_move_folders);

}  // namespace tarn::webdav
