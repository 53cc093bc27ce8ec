#include "platform/filesystem/names.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace tarn::fs {

namespace {

// The bytes of the UTF-8 sequence at the front of `text`; 0 when it is none (overlong forms,
// surrogates and values past U+10FFFF are none).
size_t SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
    return 0;
  }
  std::uint32_t value = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
    value = value << 6 | (byte(i) & 0x3FU);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return overlong || surrogate || value > 0x10FFFF ? 0 : length;
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = SequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

bool IsValidName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameBytes && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos &&
         IsUtf8(name);
}

std::string JoinPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (path.back() != '/') {
    path += '/';
  }
  path += name;
  return path;
}

std::string_view FolderOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string_view NameOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::string ConflictName(const std::string& name, std::time_t now, int number) {
  std::tm local = {};
  (void)::localtime_r(&now, &local);  // fails only for years that no clock shows
  std::array<char, 48> text = {};
  (void)std::strftime(text.data(), text.size(), " (conflict %Y-%m-%d %H.%M.%S", &local);
  const std::string mark =
      std::string(text.data()) + (number > 1 ? " " + std::to_string(number) : "") + ")";
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name.size() - dot > kMaxNameBytes / 2) {
    dot = name.size();
  }
  size_t stem = std::min(dot, kMaxNameBytes - mark.size() - (name.size() - dot));
  while (stem > 0 && stem < dot && (static_cast<unsigned char>(name[stem]) & 0xC0) == 0x80) {
    --stem;  // not in the middle of a character
  }
  return name.substr(0, stem) + mark + name.substr(dot);
}

bool IsWithin(std::string_view path, std::string_view folder) {
  if (folder == "/") {
    return true;
  }
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace tarn::fs
