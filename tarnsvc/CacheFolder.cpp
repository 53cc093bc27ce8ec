#include "tarnsvc/CacheFolder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>

#include "common/posix.h"
#include "tarnsvc/main.h"

namespace tarn {

namespace {

constexpr int kMostFolders = 1000;  // drives with one label at a time

enum class Claim { kOurs, kInUse, kFailed };

bool IsSameFolder(int fd, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Removes what stands at `path` unless it is a folder of its own; then makes and locks the folder.
Claim ClaimFolder(const std::string& path, UniqueFd& lock) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    (void)::remove(path.c_str());  // making the folder fails if it is still there
  }
  (void)CreateDirectory(path.c_str(), nullptr);
  UniqueFd folder = OpenFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!folder.valid()) {
    return Claim::kFailed;
  }
  if (RetryOnInterrupt([&] { return ::flock(folder.get(), LOCK_EX | LOCK_NB); }) != 0) {
    return errno == EWOULDBLOCK ? Claim::kInUse : Claim::kFailed;
  }
  if (!IsSameFolder(folder.get(), path)) {
    return Claim::kFailed;
  }
  lock = std::move(folder);
  return Claim::kOurs;
}

void EmptyFolder(const std::string& path) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code not_removed;  // the cache copes with what is left
    std::filesystem::remove_all(entry->path(), not_removed);
  }
}

}  // namespace

std::string FolderName(const std::string& label) {
  if (label == "." || label == "..") {
    return "_";
  }
  std::string name = label;
  std::replace(name.begin(), name.end(), '/', ':');
  return name;
}

CacheFolder OpenCacheFolder(const std::string& base, const std::string& label) {
  const std::string name = "/" + FolderName(label);
  CacheFolder folder;
  for (int number = -1; number < kMostFolders; ++number) {
    const auto path = JoinPath(base, number < 0 ? name : name + std::to_string(number));
    folder.path = path.value_or("");
    if (!path) {
      break;
    }
    const Claim claim = ClaimFolder(*path, folder.lock);
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
