#pragma once

#include <array>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "common/sync.h"
#include "interfaces/iasyncq.h"

namespace tarn {

// The queue that InitAsyncQ hands out: it owns its worker threads, and itself until Release.
class AsyncQueue final : public IAsyncQ {
 public:
  static constexpr int kMaxWorkers = 1024;  // far more than any drive has use for

  // Null when `worker_count` is not 1 to kMaxWorkers or a thread cannot be made.
  static std::unique_ptr<AsyncQueue> Start(int worker_count);

  explicit AsyncQueue(int worker_count);
  ~AsyncQueue();
  AsyncQueue(const AsyncQueue&) = delete;
  AsyncQueue& operator=(const AsyncQueue&) = delete;

  AERROR Push(ASYNCQ_TASK task, void* context, ASYNCQ_LANE lane) override;
  void Release() override;

 private:
  struct Work {
    ASYNCQ_TASK task;
    void* context;
  };

  bool StartWorkers(int worker_count);
  void Run();
  [[nodiscard]] bool HasWork() const TARN_REQUIRES(mutex);

  const int background_limit;        // workers that the background lane may occupy at once
  std::vector<std::thread> workers;  // the thread that starts and ends the queue alone

  Mutex mutex;  // guards what follows; not held while a task runs
  CondVar wake_up;
  std::array<std::deque<Work>, 2> lanes TARN_GUARDED_BY(mutex);  // by ASYNCQ_LANE
  int running_background TARN_GUARDED_BY(mutex) = 0;
  bool stopping TARN_GUARDED_BY(mutex) = false;
};

}  // namespace tarn
