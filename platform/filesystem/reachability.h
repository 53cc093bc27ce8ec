#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>

#include "common/sync.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/late_thread.h"

namespace tarn::fs {

// Whether a remote can be reached, as far as anybody knows.
//
// Calls that failed as if it could not, or that wait for long, put it in doubt. Then it is asked at
// once, and only when it does not answer that question, nor any other call meanwhile, it counts as
// unreachable. From then on it is asked again and again, after growing pauses, until it answers. So
// a single call that fails costs a healthy remote one question.
//
// Owns:    the thread that asks, made at the first doubt.
// Threads: any. The listener is called on the asking thread, with no lock held.
class Reachability {
 public:
  struct Pauses {
    std::chrono::milliseconds first{1000};
    std::chrono::milliseconds longest{30'000};
  };
  using Probe = std::function<bool()>;  // asks the remote; true: it answered. Ends in bounded time
  using Listener = std::function<void(bool is_reachable)>;  // told of every change

  Reachability(Pauses between, Probe question, Listener told)
      : pauses(between), probe(std::move(question)), listener(std::move(told)) {}
  ~Reachability() { Stop(); }
  Reachability(const Reachability&) = delete;
  Reachability& operator=(const Reachability&) = delete;

  void Answered() { ++answers; }
  void Doubt();

  [[nodiscard]] bool IsReachable() const { return reachable; }
  // Unset: it can be reached.
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> UnreachableSince() const;

  // Ends the asking; waits for a probe that runs. Not from the listener.
  void Stop();

 private:
  void Run();
  void WaitForPause(std::chrono::milliseconds pause) TARN_REQUIRES(lock);

  const Pauses pauses;
  const Probe probe;
  const Listener listener;
  std::atomic<std::uint64_t> answers = 0;
  std::atomic<bool> reachable = true;  // changed by the asking thread with `lock` held

  mutable Mutex lock;
  CondVar changed;  // a doubt, or the end
  bool doubted TARN_GUARDED_BY(lock) = false;
  bool stopped TARN_GUARDED_BY(lock) = false;
  std::uint64_t answers_at_doubt TARN_GUARDED_BY(lock) = 0;
  std::chrono::system_clock::time_point since TARN_GUARDED_BY(lock);
  LateThread asking TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
