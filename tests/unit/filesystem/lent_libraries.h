#pragma once

#include <latch>
#include <memory>

#include "interfaces/asyncq.h"
#include "interfaces/cache.h"
#include "interfaces/filesystem.h"
#include "tests/support/temp_folder.h"

namespace tarn::test {

// A queue and a cache, lent to the file-system library for the time of a test.
class LentLibraries {
 public:
  static constexpr int kWorkers = 4;
  static constexpr int kBackgroundWorkers = 3;  // one is kept for what programs wait for
  static constexpr long long kSmallBytes = 2 * 1024 * 1024;  // blocks have to go all the time

  explicit LentLibraries(long long capacity_bytes = kSmallBytes) {
    if (InitAsyncQ(kWorkers, &queue)) {
      FS_BindAsyncQ(queue);
    }
    void* object = nullptr;
    if (InitCache(folder.path().c_str(), capacity_bytes, &object) == SUCCESS) {
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
  // Until every background task that was pushed before has ended: all workers of that lane meet.
  void WaitIdle() {
    const auto meeting = std::make_shared<std::latch>(kBackgroundWorkers + 1);
    for (int i = 0; i < kBackgroundWorkers; ++i) {
      queue->Push(
          [](void* context, int /*stopping*/) {
            const std::unique_ptr<std::shared_ptr<std::latch>> met(
                static_cast<std::shared_ptr<std::latch>*>(context));
            (*met)->arrive_and_wait();
          },
          new std::shared_ptr<std::latch>(meeting), ASYNCQ_BACKGROUND);
    }
    meeting->arrive_and_wait();
  }

  LentLibraries(const LentLibraries&) = delete;
  LentLibraries& operator=(const LentLibraries&) = delete;

  IAsyncQ* queue = nullptr;
  ICache* cache = nullptr;

 private:
  TempFolder folder;
};

}  // namespace tarn::test
