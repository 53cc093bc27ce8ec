#include "tarnsvc/CacheFolder.h"

#include <filesystem>
#include <system_error>

#include "common/folders.h"
#include "tarnsvc/main.h"

namespace tarn {

namespace {

constexpr int kMostFolders = 1000;  // drives with one label at a time
constexpr mode_t kFolderMode = 0755;

void EmptyFolder(const std::string& path) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code not_removed;  // the cache copes with what is left
    std::filesystem::remove_all(entry->path(), not_removed);
  }
}

}  // namespace

CacheFolder OpenCacheFolder(const std::string& base, const std::string& label) {
  const std::string name = "/" + FolderName(label);
  CacheFolder folder;
  for (int number = -1; number < kMostFolders; ++number) {
    const auto path = JoinPath(base, number < 0 ? name : name + std::to_string(number));
    folder.path = path.value_or("");
    if (!path) {
      break;
    }
    const Claim claim = ClaimFolder(*path, kFolderMode, folder.lock);
    if (claim == Claim::kOurs) {
      EmptyFolder(*path);
    }
    if (claim != Claim::kInUse) {
      break;
    }
  }
  return folder;
}

}  // namespace tarn
