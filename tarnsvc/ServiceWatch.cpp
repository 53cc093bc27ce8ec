#include "tarnsvc/ServiceWatch.h"

#include <chrono>
#include <cstdlib>
#include <unistd.h>
#include <utility>

#include "tarnsvc/DriveProcess.h"

namespace tarn {

namespace {

constexpr auto kWatchInterval = std::chrono::milliseconds(50);

pid_t service_pid = -1;

}  // namespace

bool ServiceIsGone() {
  return service_pid > 0 && ::getppid() != service_pid;
}

void RememberService() {
  const char* const told = std::getenv(kServicePidVariable);
  const long number = told != nullptr ? std::strtol(told, nullptr, 10) : 0;
  service_pid = number > 0 ? static_cast<pid_t>(number) : ::getppid();
}

ServiceWatch::ServiceWatch(std::function<void()> steps)
    : last_steps(std::move(steps)), thread([this] { watch(); }) {}

ServiceWatch::~ServiceWatch() {
  {
    MutexLock held(lock);
    over = true;
    changed.notify_all();
  }
  thread.join();
}

void ServiceWatch::watch() {
  MutexLock held(lock);
  while (!over) {
    if (ServiceIsGone()) {
      last_steps();  // with the lock: the guarded call must not be taken for finished meanwhile
      ::_exit(1);
    }
    (void)changed.wait_until(lock, std::chrono::steady_clock::now() + kWatchInterval);
  }
}

}  // namespace tarn
