#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// Operations of IProtocol_V2 of the same name, on paths from IsDrivePath.
[[nodiscard]] AERROR Read(Remote& remote, const std::string& path, unsigned long long offset,
                          void* buffer, unsigned long long length, unsigned long long& received);
[[nodiscard]] AERROR Upload(Remote& remote, const std::string& path, Content& content);

}  // namespace tarn::webdav
