#pragma once

#include "interfaces/asyncq.h"
#include "interfaces/cache.h"
#include "interfaces/filesystem.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {

// A queue and a small cache, lent to the file-system library for the time of a test.
class LentLibraries {
 public:
  static constexpr long long kCapacityBytes = 2 * 1024 * 1024;

  LentLibraries() {
    if (InitAsyncQ(4, &queue)) {
      FS_BindAsyncQ(queue);
    }
    void* object = nullptr;
    if (InitCache(folder.path().c_str(), kCapacityBytes, &object) == SUCCESS) {
      cache = static_cast<ICache*>(object);
      FS_BindCache(object);
    }
  }
  ~LentLibraries() {
    FS_UnbindCache();
    FS_UnbindAsyncQ();
    if (queue != nullptr) {
      queue->Release();  // its tasks may still use the cache's place in the library, not the cache
    }
    (void)ReleaseCache(folder.path().c_str());  // the folder goes anyway
  }
  LentLibraries(const LentLibraries&) = delete;
  LentLibraries& operator=(const LentLibraries&) = delete;

  IAsyncQ* queue = nullptr;
  ICache* cache = nullptr;

 private:
  TempFolder folder;
};

}  // namespace tarn::test
