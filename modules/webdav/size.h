#pragma once

#include <optional>
#include <string>

#include "interfaces/aerror.h"
#include "modules/webdav/multistatus.h"
#include "modules/webdav/remote.h"

namespace tarn::webdav {

// The size in bytes of the whole file that an answer with all or a part of it tells of.
[[nodiscard]] std::optional<unsigned long long> WholeSize(const Answer& answer);

// Finds out the size of a file, and its time where that is missing, when a listing left it out: a
// file cannot be read without. FAILED: the server does not tell.
[[nodiscard]] AERROR FindSize(Remote& remote, const std::string& url, Resource& resource);

}  // namespace tarn::webdav
