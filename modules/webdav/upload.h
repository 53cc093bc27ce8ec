#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// Operation of IProtocol_V2 of the same name, on a path from IsDrivePath.
[[nodiscard]] AERROR Upload(Remote& remote, const std::string& path, Content& content);

}  // namespace tarn::webdav
