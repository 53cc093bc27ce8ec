#pragma once

#include <chrono>
#include <thread>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"

namespace tarn {

// The size that the drive is to report: the one that was set; else the last answer of the quota
// callback. A thread of its own asks the callback, which may take a minute; whoever wants the size
// never waits for it. Any thread may call; Start and Stop take turns.
class DriveSize {
 public:
  DriveSize() = default;
  DriveSize(const DriveSize&) = delete;
  DriveSize& operator=(const DriveSize&) = delete;
  ~DriveSize() { Stop(); }

  struct Bytes {
    unsigned long long total;
    unsigned long long free;
  };

  void Set(Bytes size);
  void SetCallback(void* callback_context, QUOTA_CALLBACK quota_callback);

  // Begins to ask, if there is a callback. Stop ends that and returns when a question that is under
  // way has been answered.
  void Start();
  void Stop();

  // False: nothing is known (yet). Sees to it that the answer is renewed now and then.
  [[nodiscard]] bool Get(Bytes& size);

 private:
  using Clock = std::chrono::steady_clock;

  void AskWhenWanted();
  [[nodiscard]] bool WaitUntilWanted() TARN_REQUIRES(lock);

  std::thread asker;  // of Start and Stop

  Mutex lock;
  CondVar changed;
  void* context TARN_GUARDED_BY(lock) = nullptr;
  QUOTA_CALLBACK callback TARN_GUARDED_BY(lock) = nullptr;
  bool stopping TARN_GUARDED_BY(lock) = false;
  bool wanted TARN_GUARDED_BY(lock) = false;
  bool is_set TARN_GUARDED_BY(lock) = false;
  bool is_answered TARN_GUARDED_BY(lock) = false;
  Bytes set_size TARN_GUARDED_BY(lock){};
  Bytes answer TARN_GUARDED_BY(lock){};
  Clock::time_point next_question TARN_GUARDED_BY(lock){};
};

}  // namespace tarn
