#pragma once

#include "interfaces/iasyncq.h"

extern "C" {

// Makes a queue with `workers` threads, 1 to 1024. Returns true when *queue was set; false, with
// *queue null and no thread left, for other numbers and when a thread cannot be made.
bool InitAsyncQ(int workers, IAsyncQ** queue);
}
