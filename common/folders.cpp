#include "common/folders.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "common/posix.h"

namespace tarn {

namespace {

constexpr int kMostAttempts = 100;  // while others remove the folder that they have claimed

bool IsSameFolder(int fd, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace

std::string HomeFolder() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
    return home;
  }
  passwd account = {};
  passwd* found = nullptr;
  std::array<char, 4096> texts;
  if (::getpwuid_r(::getuid(), &account, texts.data(), texts.size(), &found) != 0 ||
      found == nullptr) {
    return "";
  }
  return account.pw_dir;
}

std::string FolderName(const std::string& label) {
  if (label == "." || label == "..") {
    return "_";
  }
  std::string name = label;
  std::replace(name.begin(), name.end(), '/', ':');
  return name;
}

Claim LockFolder(const std::string& path, UniqueFd& lock) {
  UniqueFd folder = OpenFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!folder.valid()) {
    return errno == ENOENT ? Claim::kGone : Claim::kFailed;
  }
  if (RetryOnInterrupt([&] { return ::flock(folder.get(), LOCK_EX | LOCK_NB); }) != 0) {
    return errno == EWOULDBLOCK ? Claim::kInUse : Claim::kFailed;
  }
  if (!IsSameFolder(folder.get(), path)) {
    return Claim::kGone;
  }
  lock = std::move(folder);
  return Claim::kOurs;
}

Claim ClaimFolder(const std::string& path, mode_t mode, UniqueFd& lock) {
  struct stat status = {};
  if (::lstat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    (void)std::remove(path.c_str());  // making the folder fails if it is still there
  }
  Claim claim = Claim::kGone;
  for (int i = 0; i < kMostAttempts && claim == Claim::kGone; ++i) {
    (void)::mkdir(path.c_str(), mode);  // opening it tells
    claim = LockFolder(path, lock);
  }
  return claim == Claim::kGone ? Claim::kFailed : claim;
}

}  // namespace tarn
