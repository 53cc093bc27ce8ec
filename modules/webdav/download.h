#pragma once

#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// What is wanted of a file, and where it goes.
struct FilePart {
  unsigned long long offset;  // bytes
  char* buffer;
  unsigned long long length;  // bytes
};

// Operations of IProtocol_V2 of the same name, on paths from IsDrivePath.
[[nodiscard]] AERROR Read(Remote& remote, const std::string& path, const FilePart& part,
                          unsigned long long& received);
[[nodiscard]] AERROR ReadVersion(Remote& remote, const std::string& path,
                                 const std::string& version, const FilePart& part,
                                 unsigned long long& received);

}  // namespace tarn::webdav
