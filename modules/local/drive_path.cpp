#include "modules/local/drive_path.h"

#include <algorithm>
#include <stdexcept>

#include "common/utils.h"

namespace tarn::local {

namespace {

bool IsUtf8(std::string_view text) {
  try {
    (void)s2ws(std::string(text));
    return true;
  } catch (const std::range_error&) {
    return false;
  }
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
