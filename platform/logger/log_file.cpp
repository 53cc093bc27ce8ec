#include "platform/logger/log_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/posix.h"

namespace tarn {

namespace {

constexpr mode_t kOwnerOnly = 0600;

// Makes the descriptor `number` refer to the file that `from` refers to. Threads that use it at
// this moment get the one or the other.
void Exchange(int from, int number) {
#if defined(__linux__)
  (void)::dup3(from, number, O_CLOEXEC);  // both are open, so it can only be interrupted
#else
  (void)::dup2(from, number);
  (void)::fcntl(number, F_SETFD, FD_CLOEXEC);
#endif
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

}  // namespace

LogFile::LogFile(const std::string& absolute_path, off_t limit_bytes)
    : path(absolute_path),
      older_path(path + ".1"),
      locks(path + ".locks"),
      rotation_lock(locks + "/rotation"),
      limit(limit_bytes) {}

bool LogFile::Open() {
  file = OpenCurrent();
  return file.valid() && (::mkdir(locks.c_str(), 0700) == 0 || errno == EEXIST);
}

// A pipe or device would block, or cannot be rotated: only a plain file will do.
UniqueFd LogFile::OpenCurrent() const {
  UniqueFd opened = OpenFile(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK, kOwnerOnly);
  struct stat found {};
  if (!opened.valid() || ::fstat(opened.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
    return UniqueFd();
  }
  if ((found.st_mode & 07777) != kOwnerOnly) {
    (void)::fchmod(opened.get(), kOwnerOnly);  // somebody else's file stays as its owner wants it
  }
  return opened;
}

void LogFile::Append(std::string_view line) const {
  struct stat named {};
  struct stat opened {};
  if (::stat(path.c_str(), &named) != 0 || ::fstat(file.get(), &opened) != 0 ||
      !SameFile(named, opened)) {
    Follow();
  } else if (named.st_size + static_cast<off_t>(line.size()) > limit) {
    Rotate(line.size());
  }
  ssize_t written = -1;
  do {
    written = ::write(file.get(), line.data(), line.size());
  } while (written < 0 && errno == EINTR);
}

void LogFile::Follow() const {
  const UniqueFd current = OpenCurrent();
  if (current.valid()) {
    Exchange(current.get(), file.get());
  }
}

void LogFile::Rotate(size_t line_bytes) const {
  const UniqueFd lock = OpenFile(rotation_lock, O_RDWR | O_CREAT, kOwnerOnly);
  if (!lock.valid() || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    return;
  }
  struct stat named {};
  const bool full =
      ::stat(path.c_str(), &named) == 0 && named.st_size + static_cast<off_t>(line_bytes) > limit;
  if (full && ::rename(path.c_str(), older_path.c_str()) != 0) {
    (void)::ftruncate(file.get(), 0);  // without a place for the older lines they are given up
  }
  Follow();
}

}  // namespace tarn
