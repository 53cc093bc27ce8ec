#pragma once

#include "interfaces/aerror.h"

// Work for the queue. `stopping` is 1 when the queue is being released and the work is not to be
// done any more; the task then only frees its context.
using ASYNCQ_TASK = void (*)(void* context, int stopping);

enum ASYNCQ_LANE : int {
  ASYNCQ_BACKGROUND = 0,
  ASYNCQ_URGENT = 1,  // a program waits for it: taken before everything in the other lane
};

// A queue of work with a fixed number of worker threads. Any thread may push, a task included. One
// worker of eight, and of four, never takes background work, so that an urgent task need not wait
// until a long one of the background has ended; a queue of fewer than four cannot promise that.
struct IAsyncQ {
  // 0: Every task that was accepted (SUCCESS) is called exactly once, in the order of arrival
  // within its lane. ASYNCQ_STOPPED after Release has begun, ASYNCQ_NULLOBJECT for a null task.
  virtual AERROR Push(ASYNCQ_TASK task, void* context, ASYNCQ_LANE lane) = 0;
  // 1: Lets running tasks end, calls waiting ones with `stopping`, ends the workers and the object.
  // Not from a task. Nobody may be in Push, or call it, once Release has returned.
  virtual void Release() = 0;

 protected:
  ~IAsyncQ() = default;
};
