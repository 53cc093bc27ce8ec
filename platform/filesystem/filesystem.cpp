#include "interfaces/filesystem.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "common/sync.h"
#include "interfaces/cache.h"
#include "platform/filesystem/bindings.h"
#include "platform/filesystem/fuse_operations.h"
#include "platform/filesystem/mount_point.h"
#include "platform/filesystem/volume.h"

namespace tarn::fs {

namespace {

// The volumes of this process, from Mount to Unmount. Never destroyed: a process may end while
// volumes are mounted, and their threads go on to its last moment.
class MountedVolumes {
 public:
  static MountedVolumes& Get() {
    static auto* const volumes = new MountedVolumes;
    return *volumes;
  }

  void Add(std::shared_ptr<Volume> volume) {
    const MutexLock guard(lock);
    list.push_back(std::move(volume));
  }

  std::vector<std::shared_ptr<Volume>> At(const std::string& path) {
    std::vector<std::shared_ptr<Volume>> found;
    const MutexLock guard(lock);
    std::copy_if(list.begin(), list.end(), std::back_inserter(found),
                 [&](const std::shared_ptr<Volume>& volume) { return volume->IsAt(path); });
    return found;
  }

  void Remove(const std::shared_ptr<Volume>& volume) {
    const MutexLock guard(lock);
    list.erase(std::remove(list.begin(), list.end(), volume), list.end());
  }

 private:
  Mutex lock;
  std::vector<std::shared_ptr<Volume>> list TARN_GUARDED_BY(lock);
};

void LogFuse(fuse_log_level level, const char* format, va_list arguments) {
  const Lent<ILog>::Lease log(Bindings::Get().loggers[0]);
  if (log) {
    log->Write(level <= FUSE_LOG_WARNING ? LOGLEVEL_ERROR : LOGLEVEL_DEBUG, format, arguments);
  }
}

}  // namespace

}  // namespace tarn::fs

using tarn::fs::Bindings;
using tarn::fs::MountedVolumes;
using tarn::fs::Volume;

void FS_Initialize(const char* service_name) {
  Bindings::Get().SetServiceName(service_name != nullptr ? service_name : "");
}

void FS_BindAsyncQ(IAsyncQ* queue) {
  Bindings::Get().queue.Set(queue);
}

void FS_BindCache(void* cache) {
  Bindings::Get().cache.Set(static_cast<ICache*>(cache));
}

void FS_BindLogger(int channel, ILog* logger) {
  auto& loggers = Bindings::Get().loggers;
  if (channel >= 1 && static_cast<size_t>(channel) <= loggers.size()) {
    loggers[static_cast<size_t>(channel) - 1].Set(logger);
  }
}

void FS_UnbindAsyncQ() {
  Bindings::Get().queue.Set(nullptr);
}

void FS_UnbindCache() {
  Bindings::Get().cache.Set(nullptr);
}

void FS_UnbindLogger() {
  for (auto& logger : Bindings::Get().loggers) {
    logger.Set(nullptr);
  }
}

int Mount(const char* mount_point, const char* volume_name, int /*mode*/, IFSDrive** drive,
          void* /*reserved*/) {
  if (drive == nullptr) {
    return INVALID_PARAMETER;
  }
  *drive = nullptr;
  if (mount_point == nullptr || *mount_point == '\0') {
    return FS_MOUNT_POINT_ERROR;
  }
  static std::once_flag log_is_set;
  std::call_once(log_is_set, [] { fuse_set_log_func(&tarn::fs::LogFuse); });
  const auto volume = std::make_shared<Volume>(mount_point);
  if (const AERROR error = volume->Start(volume_name != nullptr ? volume_name : "");
      error != SUCCESS) {
    return error;
  }
  MountedVolumes::Get().Add(volume);
  *drive = volume.get();
  return SUCCESS;
}

int Unmount(const char* mount_point) {
  if (mount_point == nullptr) {
    return INVALID_PARAMETER;
  }
  auto volumes = MountedVolumes::Get().At(mount_point);
  const std::string resolved = tarn::fs::ResolveFolderOf(mount_point);
  if (volumes.empty()) {
    volumes = MountedVolumes::Get().At(resolved);
  }
  if (volumes.empty()) {
    return tarn::fs::IsMountPoint(resolved) ? FS_UNMOUNT_FAILED : SUCCESS;
  }
  for (const auto& volume : volumes) {  // an earlier one at the same place may be gone already
    if (const AERROR error = volume->Stop(); error != SUCCESS) {
      return error;
    }
    MountedVolumes::Get().Remove(volume);
  }
  return SUCCESS;
}
