#pragma once

#include "interfaces/iasyncq.h"

extern "C" {

// Makes a queue with `workers` threads. Returns true when *queue was set.
bool InitAsyncQ(int workers, IAsyncQ** queue);
}
