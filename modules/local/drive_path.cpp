#include "modules/local/drive_path.h"

namespace tarn::local {

namespace {

// How many bytes follow the first one of a character; -1 for a byte that begins none.
int FollowingBytes(unsigned char first) {
  if (first < 0x80) {
    return 0;
  }
  if (first >= 0xC2 && first < 0xE0) {
    return 1;
  }
  if (first >= 0xE0 && first < 0xF0) {
    return 2;
  }
  return first >= 0xF0 && first < 0xF5 ? 3 : -1;
}

// Over-long forms, surrogates and values past the last character have a second byte out of range.
bool IsSecondByte(unsigned char first, unsigned char second) {
  switch (first) {
    case 0xE0:
      return second >= 0xA0;
    case 0xED:
      return second < 0xA0;
    case 0xF0:
      return second >= 0x90;
    case 0xF4:
      return second < 0x90;
    default:
      return true;
  }
}

bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto first = static_cast<unsigned char>(text[i]);
    const int following = FollowingBytes(first);
    if (following < 0 || text.size() - i <= static_cast<size_t>(following)) {
      return false;
    }
    for (size_t k = 1; k <= static_cast<size_t>(following); ++k) {
      const auto byte = static_cast<unsigned char>(text[i + k]);
      if ((byte & 0xC0) != 0x80 || (k == 1 && !IsSecondByte(first, byte))) {
        return false;
      }
    }
    i += 1 + static_cast<size_t>(following);
  }
  return true;
}

}  // namespace

std::vector<std::string> SplitNames(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const size_t length = std::min(path.find('/'), path.size());
    if (length > 0) {
      names.emplace_back(path.substr(0, length));
    }
    path.remove_prefix(std::min(length + 1, path.size()));
  }
  return names;
}

bool IsDriveName(std::string_view name) {
  return name != "." && name != ".." && !name.starts_with(kWorkFilePrefix) && IsUtf8(name);
}

bool SplitDrivePath(std::string_view path, std::vector<std::string>& names) {
  if (!path.starts_with('/')) {
    return false;
  }
  names = SplitNames(path);
  for (const std::string& name : names) {
    if (!IsDriveName(name)) {
      return false;
    }
  }
  return true;
}

}  // namespace tarn::local
