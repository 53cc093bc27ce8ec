#pragma once

#include <functional>
#include <thread>

#include "common/sync.h"

namespace tarn {

// True once the service that started this drive process is gone: another process has become the
// parent. Any thread.
bool ServiceIsGone();

// Remembers which process the service is. Called first in a drive process, on the main thread.
void RememberService();

// Guards a call that cannot be interrupted (a module that connects to its remote): when the service
// goes away before the guard is destroyed, `last_steps` runs on the guard's thread and the process
// ends. Made and destroyed on one thread.
class ServiceWatch {
 public:
  explicit ServiceWatch(std::function<void()> last_steps);
  ~ServiceWatch();
  ServiceWatch(const ServiceWatch&) = delete;
  ServiceWatch& operator=(const ServiceWatch&) = delete;

 private:
  void watch();

  const std::function<void()> last_steps;
  Mutex lock;
  CondVar changed;
  bool over TARN_GUARDED_BY(lock) = false;
  std::thread thread;  // last: uses the members above
};

}  // namespace tarn
