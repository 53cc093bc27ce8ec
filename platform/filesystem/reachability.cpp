#include "platform/filesystem/reachability.h"

#include <algorithm>

namespace tarn::fs {

void Reachability::Doubt() {
  const MutexLock guard(lock);
  if (stopped || doubted) {
    return;
  }
  answers_at_doubt = answers;
  doubted = asking.Ensure([this] { Run(); });  // else the next doubt tries again
  changed.notify_all();
}

std::optional<std::chrono::system_clock::time_point> Reachability::UnreachableSince() const {
  const MutexLock guard(lock);
  return reachable ? std::nullopt : std::optional(since);
}

void Reachability::Stop() {
  LateThread::Ending ended;  // after the lock
  const MutexLock guard(lock);
  stopped = true;
  changed.notify_all();
  ended = asking.Take();
}

void Reachability::WaitForPause(std::chrono::milliseconds pause) {
  const auto end = Clock::now() + pause;
  while (!stopped && Clock::now() < end) {
    (void)changed.wait_until(lock, end);
  }
}

void Reachability::Run() {
  auto pause = pauses.first;
  MutexLock hold(lock);
  while (!stopped) {
    if (reachable && !doubted) {
      changed.wait(lock);
      continue;
    }
    const auto begun = std::chrono::system_clock::now();
    hold.unlock();
    const bool is_answered = probe();
    hold.lock();
    if (stopped) {
      return;
    }
    doubted = false;
    const bool is_up = is_answered || (reachable && answers != answers_at_doubt);
    if (is_up != reachable) {
      reachable = is_up;
      since = begun;
      pause = pauses.first;
      hold.unlock();
      listener(is_up);
      hold.lock();
    }
    WaitForPause(pause);  // also when all is well: doubts in a row cost no question each
    pause = reachable ? pauses.first : std::min(2 * pause, pauses.longest);
  }
}

}  // namespace tarn::fs
