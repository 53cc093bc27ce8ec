#include "modules/local/staged_file.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "modules/local/drive_path.h"
#include "modules/local/errors.h"

namespace tarn::local {

namespace {

constexpr int kMostAttempts = 1000;
constexpr mode_t kNewFileMode = 0666;  // less what the umask takes away

std::string NextWorkFileName() {
  static std::atomic<unsigned> counter{0};
  return std::string(kWorkFilePrefix) + std::to_string(::getpid()) + "-" +
         std::to_string(counter++);
}

// False when a listing took the new file for an abandoned one before it was locked.
bool LockAndCheck(int fd) {
  (void)::flock(fd, LOCK_EX | LOCK_NB);  // without locks nobody removes it either
  struct stat status {};
  return ::fstat(fd, &status) == 0 && status.st_nlink > 0;
}

}  // namespace

StagedFile::~StagedFile() {
  if (!name.empty()) {
    (void)::unlinkat(folder, name.c_str(), 0);  // a later listing tries again
  }
}

AERROR StagedFile::Create() {
  for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
    const std::string candidate = NextWorkFileName();
    UniqueFd created(::openat(folder, candidate.c_str(),
                              O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kNewFileMode));
    if (!created.valid() && errno != EEXIST) {
      return ErrorOf(errno);
    }
    if (created.valid() && LockAndCheck(created.get())) {
      file = std::move(created);
      name = candidate;
      return SUCCESS;
    }
  }
  return CAN_NOT_MAKE;
}

AERROR StagedFile::Commit(const std::string& final_name, bool may_replace) {
  if (!may_replace) {
    // A second name fails where the name is taken, which a renaming would not.
    if (::linkat(folder, name.c_str(), folder, final_name.c_str(), 0) == 0) {
      (void)::unlinkat(folder, name.c_str(), 0);
      name.clear();
      FlushFolder(folder);
      return SUCCESS;
    }
    if (errno == EEXIST) {
      return SHARING_VIOLATION;
    }
    // Some file systems have no second names; the caller has looked that nothing is there.
  }
  if (::renameat(folder, name.c_str(), folder, final_name.c_str()) != 0) {
    return ErrorOf(errno);
  }
  name.clear();
  FlushFolder(folder);
  return SUCCESS;
}

bool Flush(int fd) {
#if defined(F_FULLFSYNC)
  if (::fcntl(fd, F_FULLFSYNC) == 0) {
    return true;
  }
#endif
  return ::fsync(fd) == 0;
}

void FlushFolder(int folder) {
  const UniqueFd opened(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.valid()) {
    (void)Flush(opened.get());
  }
}

void RemoveAbandonedWorkFile(int folder, const char* name) {
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) {
    return;
  }
  const UniqueFd file(::openat(folder, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file.valid() && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
    (void)::unlinkat(folder, name, 0);
  }
}

}  // namespace tarn::local
