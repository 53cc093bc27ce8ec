#pragma once

#include <string>

#include "common/unique_fd.h"

namespace tarn {

// A drive's own cache folder: made, locked against other drive processes and empty. The lock lasts
// as long as the object.
struct CacheFolder {
  std::string path;  // where it is, or would be
  UniqueFd lock;     // not valid when the folder could not be had
};

// The folder is named by the label, which comes from a client: it never leaves `base`. A label that
// another live drive process uses gets the first free one of label + "0", "1", ... What is found in
// the folder is removed without following symbolic links.
CacheFolder OpenCacheFolder(const std::string& base, const std::string& label);

}  // namespace tarn
