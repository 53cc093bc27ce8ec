#include "modules/local/upload.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <vector>

#include "common/posix.h"
#include "modules/local/errors.h"
#include "modules/local/staged_file.h"

namespace tarn::local {

namespace {

class SpeedMeter {
 public:
  [[nodiscard]] double BytesPerSecond(unsigned long long bytes) const {
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    return passed.count() > 0 ? static_cast<double>(bytes) / passed.count() : 0.0;
  }

 private:
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

AERROR CopyContent(FS_SOURCE& source, unsigned long long size, int target, Throttle& throttle,
                   Progress progress) {
  const Throttle::Ticket ticket = throttle.Begin();
  const SpeedMeter meter;
  std::vector<char> part;
  unsigned long long sent = 0;
  do {
    part.resize(static_cast<size_t>(std::min<unsigned long long>(
        size - sent, static_cast<unsigned long long>(throttle.PartBytes()))));
    if (!throttle.Pass(ticket, static_cast<long long>(part.size()))) {
      return UPLOAD_CANCELED;
    }
    long long count = 0;
    if (!part.empty()) {
      count = source.read(source.context, part.data(), static_cast<long long>(part.size()));
      if (count <= 0 || static_cast<size_t>(count) > part.size()) {
        return FILE_READ_FAILED;
      }
    }
    if (!WriteAll(target, part.data(), static_cast<size_t>(count))) {
      return ErrorOf(errno);
    }
    sent += static_cast<unsigned long long>(count);
    if (progress.report != nullptr) {
      progress.report(static_cast<long long>(size), static_cast<long long>(sent), progress.context,
                      meter.BytesPerSecond(sent));
    }
  } while (sent < size);
  return SUCCESS;
}

// The new file takes over who may do what with the one it replaces, as far as we may grant it.
void TakeOverRights(int target, const struct stat& replaced) {
  (void)::fchown(target, replaced.st_uid, replaced.st_gid);
  (void)::fchmod(target, replaced.st_mode & 0777);
}

bool StoreTime(int target, const FS_TIME& modified) {
  timespec times[2]{};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(modified.seconds);
  times[1].tv_nsec = modified.nanoseconds;
  return ::futimens(target, times) == 0;
}

// Whether a name still holds the version that an upload may replace.
AERROR CheckReplaced(const Place& place, const char* replaces) {
  if (replaces == nullptr) {
    return SUCCESS;
  }
  struct stat status {};
  if (::fstatat(place.folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    const bool is_free = errno == ENOENT && *replaces == '\0';
    return is_free ? SUCCESS : SHARING_VIOLATION;
  }
  const bool is_version = *replaces != '\0' && IsVersionOf(status, replaces);
  return is_version && S_ISREG(status.st_mode) ? SUCCESS : SHARING_VIOLATION;
}

AERROR FindTarget(const Folder& folder, const char* path, Place& place) {
  const AERROR error = folder.Find(path, LastLink::kFollow, place);
  if (error == FILE_NOT_FOUND) {
    return ACCESS_DENIED;  // a link that is not shown has the name
  }
  const bool is_free = place.kind == Kind::kNothing || place.kind == Kind::kFile;
  return error == SUCCESS && !is_free ? ACCESS_DENIED : error;
}

// Writes the whole new file, still under its hidden name, so that only giving it its name is left.
AERROR WriteStaged(StagedFile& staged, const Place& place, FS_SOURCE& source,
                   unsigned long long size, Throttle& throttle, Progress progress) {
  AERROR error = staged.Create();
  if (error == SUCCESS) {
    error = CopyContent(source, size, staged.GetFd(), throttle, progress);
  }
  if (error != SUCCESS) {
    return error;
  }
  if (place.kind == Kind::kFile) {
    TakeOverRights(staged.GetFd(), place.status);
  }
  const bool is_stored =
      (source.modified == nullptr || StoreTime(staged.GetFd(), *source.modified)) &&
      Flush(staged.GetFd());
  return is_stored ? SUCCESS : ErrorOf(errno);
}

}  // namespace

AERROR StoreFile(const Folder& folder, const char* path, FS_SOURCE& source, unsigned long long size,
                 Throttle& throttle, Progress progress, Mutex& commit_lock) {
  Place place;
  AERROR error = FindTarget(folder, path, place);
  if (error == SUCCESS) {
    error = CheckReplaced(place, source.replaces);
  }
  if (error != SUCCESS) {
    return error;
  }
  StagedFile staged(place.folder.get());
  error = WriteStaged(staged, place, source, size, throttle, progress);
  if (error != SUCCESS) {
    return error;
  }
  const MutexLock hold(commit_lock);
  error = CheckReplaced(place, source.replaces);
  if (error == SUCCESS) {
    const bool may_replace = source.replaces == nullptr || *source.replaces != '\0';
    error = staged.Commit(place.name, may_replace);
  }
  struct stat stored {};
  if (error == SUCCESS && ::fstat(staged.GetFd(), &stored) == 0) {
    std::memcpy(source.version, InfoOf(stored).version, sizeof source.version);
  }
  return error;
}

}  // namespace tarn::local
