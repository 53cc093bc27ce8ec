#pragma once

#include <functional>

#include "common/sync.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/late_thread.h"

namespace tarn::fs {

// Does something now and then for as long as there is more to do, with a pause before every time.
//
// Owned by what the work is for. Owns its thread, which is made by the first Start.
// Threads: any; Stop not from the work.
class Repeater {
 public:
  using Work = std::function<bool()>;  // true: there will be more to do

  Repeater(Work repeated, Clock::duration before_each)
      : work(std::move(repeated)), pause(before_each) {}
  ~Repeater() { Stop(); }
  Repeater(const Repeater&) = delete;
  Repeater& operator=(const Repeater&) = delete;

  void Start();  // there is something to do, after a pause
  void Stop();   // waits for what is being done; nothing begins any more

 private:
  void Run() TARN_EXCLUDES(lock);

  const Work work;
  const Clock::duration pause;
  Mutex lock;
  CondVar changed;
  bool wanted TARN_GUARDED_BY(lock) = false;
  bool stopped TARN_GUARDED_BY(lock) = false;
  LateThread thread TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
