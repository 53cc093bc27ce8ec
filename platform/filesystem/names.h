#pragma once

#include <string>
#include <string_view>

// Names and paths within a drive: UTF-8, absolute, "/"-separated, the root is "/".
namespace tarn::fs {

inline constexpr size_t kMaxNameBytes = 255;

// One component that may be shown to programs: 1 to 255 bytes of valid UTF-8, no "/", no zero byte,
// not "." or "..".
[[nodiscard]] bool IsValidName(std::string_view name);

[[nodiscard]] std::string JoinPath(std::string_view folder, std::string_view name);
[[nodiscard]] std::string_view FolderOf(std::string_view path);  // of the root: the root
[[nodiscard]] std::string_view NameOf(std::string_view path);    // of the root: empty

// Whether `path` is `folder` itself or lies below it.
[[nodiscard]] bool IsWithin(std::string_view path, std::string_view folder);

}  // namespace tarn::fs
