#include "platform/filesystem/known_space.h"

namespace tarn::fs {

namespace {

constexpr std::chrono::seconds kBelieved{5};

}  // namespace

Space KnownSpace::Get() {
  bool is_old = false;
  Space known;
  {
    const MutexLock guard(lock);
    is_old = answered + kBelieved < Clock::now();
    known = space;
  }
  if (is_old) {
    Ask();
  }
  return known;
}

void KnownSpace::Ask() {
  {
    const MutexLock guard(lock);
    if (std::exchange(is_asking, true)) {
      return;
    }
  }
  const bool is_pushed = PushWork([this, keep = owner()](bool stopping) {
    Space answer;
    const bool is_known = !stopping && remote.GetSize(answer.total, answer.free) == SUCCESS;
    const MutexLock guard(lock);
    space = is_known ? answer : space;
    answered = Clock::now();
    is_asking = false;
  });
  if (!is_pushed) {
    const MutexLock guard(lock);
    is_asking = false;  // without a queue the space stays unknown
  }
}

}  // namespace tarn::fs
