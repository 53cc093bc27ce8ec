#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "common/sync.h"
#include "interfaces/ifsevent.h"
#include "platform/filesystem/attributes.h"

namespace tarn::fs {

// What happens on a drive, handed to whoever listens at the moment. Never call with a lock held.
//
// Threads: any.
class Events {
 public:
  void SetSink(std::shared_ptr<IFSEvent> listener);

  void BeginUpload(const std::string& path);
  void Uploading(const std::string& path, long long total, long long sent, double speed);
  void EndUpload(AERROR error, const std::string& path);
  // Tells of a failed operation if it matters to people; `origin` is the place before a move.
  void Failed(FS_EVENT operation, AERROR error, const std::string& path, const std::string& origin);
  // Tells of it once; while the remote cannot be reached, calls of programs that fail for it are
  // not.
  void ReachabilityChanged(bool is_reachable);
  // Of the files that were not sent, some wait on this machine for the drive to be mounted again;
  // others could not be kept either, which their programs were told.
  void LeftUnsent(const std::string& mount_point, size_t kept, size_t lost);
  void Unmounted(const std::string& mount_point);

 private:
  [[nodiscard]] std::shared_ptr<IFSEvent> Sink();

  std::atomic<bool> reachable = true;
  Mutex lock;
  std::shared_ptr<IFSEvent> sink TARN_GUARDED_BY(lock);
};

// The events of one upload: the begin on construction, progress at most ten times a second and
// always the last, the end when it is called for.
class UploadEvents {
 public:
  UploadEvents(Events& listener, std::string path_of_file, long long size);

  static void OnProgress(long long total, long long sent, void* context, double speed);
  void End(AERROR error);

 private:
  void Tell(long long sent, double speed);

  Events& events;
  const std::string path;
  const long long total;
  const Clock::time_point begin = Clock::now();
  Mutex lock;  // a module may report from more than one thread
  long long told TARN_GUARDED_BY(lock) = -1;
  Clock::time_point last_told TARN_GUARDED_BY(lock) = {};
};

}  // namespace tarn::fs
