#include "interfaces/cache.h"

#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>

#include "common/sync.h"
#include "platform/cache/disk_cache.h"

namespace tarn {

namespace {

// The caches of this process by folder. Never destroyed: threads may use one until the process has
// ended.
struct Caches {
  Mutex mutex;
  std::map<std::string, std::unique_ptr<DiskCache>, std::less<>> by_folder TARN_GUARDED_BY(mutex);
};

Caches& ProcessCaches() {
  static Caches* const caches = std::make_unique<Caches>().release();
  return *caches;
}

bool IsFolder(const char* path) {
  struct stat found {};
  return path != nullptr && ::stat(path, &found) == 0 && S_ISDIR(found.st_mode);
}

}  // namespace

}  // namespace tarn

int InitCache(const char* path, long long capacity_bytes, void** cache) {
  if (cache == nullptr) {
    return INVALID_PARAMETER;
  }
  if (!tarn::IsFolder(path)) {
    return CACHE_INVALID_PATH;
  }
  if (capacity_bytes < tarn::DiskCache::kMinCapacityBytes) {
    return CACHE_TOO_SMALL;
  }
  auto made =
      std::make_unique<tarn::DiskCache>(path, static_cast<unsigned long long>(capacity_bytes));
  if (!made->Start()) {
    return CACHE_CREATE_FAILED;
  }
  *cache = static_cast<ICache*>(made.get());
  tarn::Caches& caches = tarn::ProcessCaches();
  const tarn::MutexLock lock(caches.mutex);
  caches.by_folder[path] = std::move(made);
  return SUCCESS;
}

int ReleaseCache(const char* path) {
  tarn::Caches& caches = tarn::ProcessCaches();
  const tarn::MutexLock lock(caches.mutex);
  const auto found = path == nullptr ? caches.by_folder.end() : caches.by_folder.find(path);
  if (found == caches.by_folder.end()) {
    return CACHE_NOT_OPENED;
  }
  caches.by_folder.erase(found);
  return SUCCESS;
}
