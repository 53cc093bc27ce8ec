#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <set>

#include "common/sync.h"
#include "platform/filesystem/attributes.h"

namespace tarn::fs {

// Threads for calls that may never return, so that whoever waits for such a call can leave it
// behind. A call that was left behind goes on, shares all that it uses, and its thread is free for
// others when it returns after all. The way there and back costs about 3 us.
//
// Owns:    up to a fixed number of threads, made when they are needed. They share ownership of this
//          object, and end by themselves when there is nothing to do and others are idle already.
// Threads: any.
class HelperThreads : public std::enable_shared_from_this<HelperThreads> {
 public:
  using Work = std::function<void()>;
  // Until when to wait for a call from now on; a time that has passed: no longer. Asked at the
  // beginning, at every time that it named, and by WakeAll; with no lock held.
  using Patience = std::function<Clock::time_point()>;
  enum class Ending { kDone, kLeftBehind, kNotBegun };

  explicit HelperThreads(int thread_limit) : max_threads(thread_limit) {}

  // Waits for a free thread if there is none, as long as the patience lasts.
  [[nodiscard]] Ending Run(Work work, const Patience& patience);
  // Has everyone who waits ask the own patience anew.
  void WakeAll();
  [[nodiscard]] int CountLeftBehind() const;
  // Until nothing runs any more, not what was left behind either. False: something does.
  [[nodiscard]] bool WaitIdle(Clock::time_point deadline);
  // Threads that are idle, or become so, end.
  void Stop();

 private:
  struct Job {
    Work work;
    CondVar changed;
    bool has_begun = false;
    bool is_done = false;
    bool is_left = false;
    bool is_woken = false;  // the patience is to be asked
  };
  using JobPtr = std::shared_ptr<Job>;

  // True: a thread is idle and to be woken.
  bool Push(const JobPtr& job) TARN_REQUIRES(lock);
  [[nodiscard]] Ending Wait(const JobPtr& job, const Patience& patience) TARN_EXCLUDES(lock);
  Ending GiveUp(const JobPtr& job) TARN_REQUIRES(lock);
  void Serve();
  void Do(const JobPtr& job) TARN_EXCLUDES(lock);

  const int max_threads;
  mutable Mutex lock;
  CondVar work_came;
  CondVar all_idle;
  std::deque<JobPtr> waiting TARN_GUARDED_BY(lock);  // for a thread
  std::set<JobPtr> waited_for TARN_GUARDED_BY(lock);
  int threads TARN_GUARDED_BY(lock) = 0;
  int idle TARN_GUARDED_BY(lock) = 0;
  int busy TARN_GUARDED_BY(lock) = 0;
  int left TARN_GUARDED_BY(lock) = 0;
  bool stopped TARN_GUARDED_BY(lock) = false;
};

}  // namespace tarn::fs
