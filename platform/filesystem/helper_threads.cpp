#include "platform/filesystem/helper_threads.h"

#include <algorithm>
#include <system_error>
#include <thread>

namespace tarn::fs {

namespace {

constexpr int kMaxIdle = 16;  // as many as calls that run at a time when a program reads on and on

}  // namespace

HelperThreads::Ending HelperThreads::Run(Work work, const Patience& patience) {
  const auto job = std::make_shared<Job>();
  job->work = std::move(work);
  bool is_thread_idle = false;
  {
    const MutexLock guard(lock);
    is_thread_idle = Push(job);
    waited_for.insert(job);
  }
  if (is_thread_idle) {
    work_came.notify_one();  // without the lock, which it takes at once
  }
  const Ending ending = Wait(job, patience);
  const MutexLock guard(lock);
  waited_for.erase(job);
  return ending;
}

HelperThreads::Ending HelperThreads::Wait(const JobPtr& job, const Patience& patience) {
  for (;;) {
    const auto until = patience();
    const MutexLock guard(lock);
    if (!job->is_done && until <= Clock::now()) {
      return GiveUp(job);
    }
    while (!job->is_done && !job->is_woken && job->changed.wait_until(lock, until)) {
    }
    if (job->is_done) {
      return Ending::kDone;
    }
    job->is_woken = false;
  }
}

bool HelperThreads::Push(const JobPtr& job) {
  waiting.push_back(job);
  if (static_cast<size_t>(idle) >= waiting.size()) {
    return true;
  }
  if (threads < max_threads) {
    try {
      std::thread([self = shared_from_this()] { self->Serve(); }).detach();
      ++threads;
    } catch (const std::system_error&) {  // those that run will do
    }
  }
  return false;
}

HelperThreads::Ending HelperThreads::GiveUp(const JobPtr& job) {
  if (!job->has_begun) {
    waiting.erase(std::remove(waiting.begin(), waiting.end(), job), waiting.end());
    return Ending::kNotBegun;
  }
  job->is_left = true;
  ++left;
  return Ending::kLeftBehind;
}

void HelperThreads::WakeAll() {
  const MutexLock guard(lock);
  for (const JobPtr& job : waited_for) {
    job->is_woken = true;
    job->changed.notify_all();
  }
}

int HelperThreads::CountLeftBehind() const {
  const MutexLock guard(lock);
  return left;
}

bool HelperThreads::WaitIdle(Clock::time_point deadline) {
  const MutexLock guard(lock);
  while (busy > 0 && all_idle.wait_until(lock, deadline)) {
  }
  return busy == 0;
}

void HelperThreads::Stop() {
  const MutexLock guard(lock);
  stopped = true;
  work_came.notify_all();
}

void HelperThreads::Serve() {
  MutexLock hold(lock);
  for (;;) {
    while (waiting.empty()) {
      if (stopped || idle >= kMaxIdle) {
        --threads;
        return;
      }
      ++idle;
      work_came.wait(lock);
      --idle;
    }
    const JobPtr job = waiting.front();
    waiting.pop_front();
    job->has_begun = true;
    ++busy;
    hold.unlock();
    Do(job);
    hold.lock();
    job->is_done = true;
    left -= job->is_left ? 1 : 0;
    if (--busy == 0) {
      all_idle.notify_all();
    }
    hold.unlock();  // who waits finds the lock free
    job->changed.notify_one();
    hold.lock();
  }
}

// What the call used ends before it counts as ended.
void HelperThreads::Do(const JobPtr& job) {
  job->work();
  job->work = nullptr;
}

}  // namespace tarn::fs
