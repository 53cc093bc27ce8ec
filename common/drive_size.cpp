#include "common/drive_size.h"

#include <algorithm>

namespace tarn {

namespace {

constexpr std::chrono::seconds kAfterAnswer{15};
constexpr std::chrono::seconds kAfterNone{1};  // or as long as it took not to be answered

}  // namespace

void DriveSize::Set(Bytes size) {
  const MutexLock hold(lock);
  set_size = size;
  is_set = true;
}

void DriveSize::SetCallback(void* callback_context, QUOTA_CALLBACK quota_callback) {
  const MutexLock hold(lock);
  context = callback_context;
  callback = quota_callback;
}

void DriveSize::Start() {
  Stop();
  {
    const MutexLock hold(lock);
    if (callback == nullptr) {
      return;
    }
    stopping = false;
    wanted = true;  // so that the first one to ask for the size finds an answer
  }
  asker = std::thread([this] { AskWhenWanted(); });
}

void DriveSize::Stop() {
  {
    const MutexLock hold(lock);
    stopping = true;
    changed.notify_all();
  }
  if (asker.joinable()) {
    asker.join();
  }
}

bool DriveSize::Get(Bytes& size) {
  const MutexLock hold(lock);
  if (is_set) {
    size = set_size;
    return true;
  }
  wanted = true;
  changed.notify_all();
  size = answer;
  return is_answered;
}

// False when the thread is to end.
bool DriveSize::WaitUntilWanted() {
  while (!stopping && !wanted) {
    changed.wait(lock);
  }
  while (!stopping && Clock::now() < next_question) {
    (void)changed.wait_until(lock, next_question);
  }
  return !stopping;
}

void DriveSize::AskWhenWanted() {
  MutexLock hold(lock);
  while (WaitUntilWanted()) {
    wanted = false;
    void* const callback_context = context;
    const QUOTA_CALLBACK ask = callback;
    long long total = 0;
    long long free = 0;
    hold.unlock();
    const Clock::time_point asked = Clock::now();
    const bool has_answer = ask != nullptr && ask(callback_context, nullptr, &total, &free);
    hold.lock();
    if (has_answer && total > 0) {  // nothing at all is no size
      answer.total = static_cast<unsigned long long>(total);
      answer.free = static_cast<unsigned long long>(std::clamp(free, 0LL, total));
      is_answered = true;
    }
    const Clock::time_point now = Clock::now();
    next_question =
        now + (has_answer ? kAfterAnswer : std::max<Clock::duration>(kAfterNone, now - asked));
  }
}

}  // namespace tarn
