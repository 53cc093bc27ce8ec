#include "platform/filesystem/repeater.h"

namespace tarn::fs {

void Repeater::Start() {
  const MutexLock guard(lock);
  if (!stopped) {
    wanted = true;
    changed.notify_all();
    (void)thread.Ensure([this] { Run(); });  // else with the next start
  }
}

void Repeater::Stop() {
  LateThread::Ending ended;  // after the lock
  const MutexLock guard(lock);
  stopped = true;
  changed.notify_all();
  ended = thread.Take();
}

void Repeater::Run() {
  for (;;) {
    {
      const MutexLock guard(lock);
      while (!stopped && !wanted) {
        changed.wait(lock);
      }
      const auto due = Clock::now() + pause;
      while (!stopped && changed.wait_until(lock, due)) {
      }
      if (stopped) {
        return;
      }
      wanted = false;
    }
    const bool has_more = work();
    const MutexLock guard(lock);
    wanted = wanted || has_more;
  }
}

}  // namespace tarn::fs
