#pragma once

#include <optional>
#include <string>

#include "common/json.h"
#include "tarnctl/verbs.h"

namespace tarn {

// A path as the service needs it, which stands in another folder than its client: absolute, without
// "." and "..", no "/" at its end.
[[nodiscard]] std::string AbsolutePath(const std::string& path);

// The "connect" message for a mount request. Nothing, and the reason in `problem`, when something
// in the request cannot be sent.
[[nodiscard]] std::optional<Json> MountMessage(const MountRequest& request, std::string& problem);

}  // namespace tarn
