#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarn::local {

// Cuts a path of the drive into its names; the root has none. False when it is no such path: not
// absolute, not UTF-8, with "." or ".." in it, or with a name that uploads use for their work.
[[nodiscard]] bool SplitDrivePath(std::string_view path, std::vector<std::string>& names);

// The pieces of a path between its "/", without empty ones.
[[nodiscard]] std::vector<std::string> SplitNames(std::string_view path);

// Whether a name can be shown: UTF-8, and not the name of an upload's work file.
[[nodiscard]] bool IsDriveName(std::string_view name);

inline constexpr std::string_view kWorkFilePrefix = ".tarn-upload-";

}  // namespace tarn::local
