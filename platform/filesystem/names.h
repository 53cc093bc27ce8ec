#pragma once

#include <ctime>
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

// The name under which a file goes beside one that somebody else has made:
// "name (conflict 2026-03-14 09.26.53).ext", in local time; from the second one on with the number
// behind the time. Still valid if `name` was.
[[nodiscard]] std::string ConflictName(const std::string& name, std::time_t now, int number = 1);

// Whether `path` is `folder` itself or lies below it.
[[nodiscard]] bool IsWithin(std::string_view path, std::string_view folder);

}  // namespace tarn::fs
