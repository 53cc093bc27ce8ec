#include "interfaces/asyncq.h"

#include "platform/asyncq/async_queue.h"

bool InitAsyncQ(int workers, IAsyncQ** queue) {
  if (queue == nullptr) {
    return false;
  }
  *queue = tarn::AsyncQueue::Start(workers).release();  // owns itself until its Release
  return *queue != nullptr;
}
