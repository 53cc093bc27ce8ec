#pragma once

#include <barrier>
#include <gtest/gtest.h>

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
    EXPECT_TRUE(InitAsyncQ(kWorkers, &queue));
    FS_BindAsyncQ(queue);
    void* object = nullptr;
    EXPECT_EQ(InitCache(folder.path().c_str(), capacity_bytes, &object), SUCCESS);
    cache = static_cast<ICache*>(object);
    FS_BindCache(object);
  }
  ~LentLibraries() {
    FS_UnbindCache();
    FS_UnbindAsyncQ();
    queue->Release();  // its tasks may still use the cache's place in the library, not the cache
    (void)ReleaseCache(folder.path().c_str());  // the folder goes anyway
  }
  LentLibraries(const LentLibraries&) = delete;
  LentLibraries& operator=(const LentLibraries&) = delete;

  // Until every background task that was pushed before has ended: all workers of that lane meet.
  void WaitIdle() {
    const auto meet = [](void* context, int /*stopping*/) {
      static_cast<std::barrier<>*>(context)->arrive_and_wait();
    };
    for (int i = 0; i < kBackgroundWorkers; ++i) {
      queue->Push(meet, &meeting, ASYNCQ_BACKGROUND);
    }
    meeting.arrive_and_wait();
  }

  IAsyncQ* queue = nullptr;
  ICache* cache = nullptr;

 private:
  TempFolder folder;
  std::barrier<> meeting{kBackgroundWorkers + 1};
};

}  // namespace tarn::test
