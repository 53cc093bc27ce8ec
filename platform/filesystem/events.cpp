#include "platform/filesystem/events.h"

#include <utility>

#include "platform/filesystem/bindings.h"
#include "platform/filesystem/errors.h"

namespace tarn::fs {

namespace {

constexpr std::chrono::milliseconds kProgressInterval{100};

}  // namespace

void Events::SetSink(std::shared_ptr<IFSEvent> listener) {
  std::shared_ptr<IFSEvent> old;  // let go of after the lock
  const MutexLock guard(lock);
  old = std::exchange(sink, std::move(listener));
}

std::shared_ptr<IFSEvent> Events::Sink() {
  const MutexLock guard(lock);
  return sink;
}

void Events::BeginUpload(const std::string& path) {
  if (const auto listener = Sink(); listener) {
    listener->BeginUpload(path.c_str(), path.c_str(), nullptr);
  }
}

void Events::Uploading(const std::string& path, long long total, long long sent, double speed) {
  if (const auto listener = Sink(); listener) {
    listener->Uploading(path.c_str(), path.c_str(), total, sent, speed);
  }
}

void Events::EndUpload(AERROR error, const std::string& path) {
  if (error != SUCCESS && error != UPLOAD_CANCELED) {
    Log(LOGLEVEL_ERROR, "upload of %s failed: %d", path.c_str(), static_cast<int>(error));
  }
  if (const auto listener = Sink(); listener) {
    listener->EndUpload(error, path.c_str(), path.c_str(), nullptr);
  }
}

void Events::Failed(FS_EVENT operation, AERROR error, const std::string& path,
                    const std::string& origin) {
  const bool is_upload = operation == FS_EVENT_CREATE_FILE;  // each failure of which is told
  const bool is_told_already = error == DEVICE_NOT_READY && !reachable && !is_upload;
  if (!MattersToPeople(error) || is_told_already) {
    return;
  }
  Log(LOGLEVEL_ERROR, "operation %d on %s failed: %d", static_cast<int>(operation), path.c_str(),
      static_cast<int>(error));
  if (const auto listener = Sink(); listener) {
    listener->Error(operation, error, path.c_str(), origin.c_str(), nullptr);
  }
}

void Events::ReachabilityChanged(bool is_reachable) {
  reachable = is_reachable;
  Log(LOGLEVEL_ERROR, "the remote %s", is_reachable ? "answers again" : "cannot be reached");
  if (const auto listener = is_reachable ? nullptr : Sink(); listener) {
    listener->Error(FS_EVENT_READDIR, DEVICE_NOT_READY, "/", "/", nullptr);
  }
}

void Events::LeftUnsent(const std::string& mount_point, size_t kept, size_t lost) {
  std::string message = std::to_string(kept) +
                        " files were not sent; they wait on this machine until the drive is "
                        "mounted again";
  if (lost > 0) {
    message += "; " + std::to_string(lost) + " more could not be kept and are lost";
  }
  Log(LOGLEVEL_ERROR, "%s: %s", mount_point.c_str(), message.c_str());
  if (const auto listener = Sink(); listener) {
    listener->Error(FS_EVENT_CREATE_FILE, SAVE_TO_LOCAL, mount_point.c_str(), mount_point.c_str(),
                    message.c_str());
  }
}

void Events::Unmounted(const std::string& mount_point) {
  if (const auto listener = Sink(); listener) {
    listener->Unmounted(mount_point.c_str());
  }
}

UploadEvents::UploadEvents(Events& listener, std::string path_of_file, long long size)
    : events(listener), path(std::move(path_of_file)), total(size) {
  events.BeginUpload(path);
}

void UploadEvents::OnProgress(long long /*total*/, long long sent, void* context, double speed) {
  auto& self = *static_cast<UploadEvents*>(context);
  {
    const auto now = Clock::now();
    const MutexLock guard(self.lock);
    if (sent <= self.told || now - self.last_told < kProgressInterval) {
      return;
    }
    self.told = sent;
    self.last_told = now;
  }
  self.Tell(sent, speed);
}

void UploadEvents::End(AERROR error) {
  bool last_is_told = error != SUCCESS;
  {
    const MutexLock guard(lock);
    last_is_told = last_is_told || told == total;
  }
  if (!last_is_told) {
    const std::chrono::duration<double> seconds = Clock::now() - begin;
    Tell(total, seconds.count() > 0 ? static_cast<double>(total) / seconds.count() : 0);
  }
  events.EndUpload(error, path);
}

void UploadEvents::Tell(long long sent, double speed) {
  events.Uploading(path, total, sent, speed);
}

}  // namespace tarn::fs
