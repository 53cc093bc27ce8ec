#include "platform/asyncq/async_queue.h"

#include <system_error>

namespace tarn {

std::unique_ptr<AsyncQueue> AsyncQueue::Start(int worker_count) {
  if (worker_count < 1 || worker_count > kMaxWorkers) {
    return nullptr;
  }
  auto queue = std::make_unique<AsyncQueue>(worker_count);
  return queue->StartWorkers(worker_count) ? std::move(queue) : nullptr;
}

// One of eight workers is kept for what programs wait for, of four already one.
AsyncQueue::AsyncQueue(int worker_count)
    : background_limit(worker_count - (worker_count + 4) / 8) {}

AsyncQueue::~AsyncQueue() {
  {
    const MutexLock lock(mutex);
    stopping = true;
  }
  wake_up.notify_all();
  for (std::thread& worker : workers) {
    worker.join();
  }
}

bool AsyncQueue::StartWorkers(int worker_count) {
  workers.reserve(static_cast<size_t>(worker_count));
  try {
    for (int i = 0; i < worker_count; ++i) {
      workers.emplace_back(&AsyncQueue::Run, this);
    }
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

AERROR AsyncQueue::Push(ASYNCQ_TASK task, void* context, ASYNCQ_LANE lane) {
  if (task == nullptr) {
    return ASYNCQ_NULLOBJECT;
  }
  {
    const MutexLock lock(mutex);
    if (stopping) {
      return ASYNCQ_STOPPED;
    }
    lanes[lane == ASYNCQ_URGENT ? ASYNCQ_URGENT : ASYNCQ_BACKGROUND].push_back({task, context});
  }
  wake_up.notify_one();
  return SUCCESS;
}

void AsyncQueue::Release() {
  const std::unique_ptr<AsyncQueue> ended(this);
}

bool AsyncQueue::HasWork() const {
  return !lanes[ASYNCQ_URGENT].empty() ||
         (!lanes[ASYNCQ_BACKGROUND].empty() && running_background < background_limit);
}

void AsyncQueue::Run() {
  MutexLock lock(mutex);
  for (;;) {
    while (!HasWork() && !stopping) {
      wake_up.wait(mutex);
    }
    if (!HasWork()) {
      return;  // background work that is left goes to the workers that are busy with it
    }
    const bool background = lanes[ASYNCQ_URGENT].empty();
    std::deque<Work>& lane = lanes[background ? ASYNCQ_BACKGROUND : ASYNCQ_URGENT];
    const Work work = lane.front();
    lane.pop_front();
    const int told_stopping = stopping ? 1 : 0;
    running_background += background ? 1 : 0;
    lock.unlock();
    work.task(work.context, told_stopping);
    lock.lock();
    running_background -= background ? 1 : 0;
  }
}

}  // namespace tarn
