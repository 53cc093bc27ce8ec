#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "platform/filesystem/bindings.h"

namespace tarn::fs {

// Gives a share of the object that a part belongs to, which is to live as long as work for the
// part; null when that object is about to end.
using Owner = std::function<std::shared_ptr<void>()>;

// Has the bound queue run `work(stopping)`; when the queue is stopping, only what must be put right
// is to be done. False: there is no queue, or it takes nothing, and the work was not run.
template <typename Work>
[[nodiscard]] bool PushWork(Work work, ASYNCQ_LANE lane = ASYNCQ_BACKGROUND) {
  struct Task {
    Work work;

    static void Run(void* context, int stopping) {
      const std::unique_ptr<Task> self(static_cast<Task*>(context));
      self->work(stopping != 0);
    }
  };
  auto task = std::make_unique<Task>(Task{std::move(work)});
  const Lent<IAsyncQ>::Lease queue(Bindings::Get().queue);
  if (!queue || queue->Push(&Task::Run, task.get(), lane) != SUCCESS) {
    return false;
  }
  (void)task.release();  // the queue's now
  return true;
}

}  // namespace tarn::fs
