#pragma once

#include <array>
#include <string>
#include <utility>

#include "common/sync.h"
#include "interfaces/cache.h"
#include "interfaces/iasyncq.h"
#include "interfaces/ilog.h"

namespace tarn::fs {

// Something that the process lends the library for a while. Lease uses it; Set waits until the
// leases of what was lent before have ended. Leases are short: nothing waits inside of one.
//
// Threads: any.
template <typename T>
class Lent {
 public:
  class Lease {
   public:
    explicit Lease(Lent& lent) : owner(lent), object(lent.Begin()) {}
    ~Lease() { owner.End(); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    explicit operator bool() const { return object != nullptr; }
    T* operator->() const { return object; }

   private:
    Lent& owner;
    T* const object;
  };

  void Set(T* lent) {
    const MutexLock guard(lock);
    object = lent;
    while (leases > 0) {
      ended.wait(lock);
    }
  }

 private:
  T* Begin() {
    const MutexLock guard(lock);
    ++leases;
    return object;
  }
  void End() {
    const MutexLock guard(lock);
    if (--leases == 0) {
      ended.notify_all();
    }
  }

  Mutex lock;
  CondVar ended;
  T* object TARN_GUARDED_BY(lock) = nullptr;
  int leases TARN_GUARDED_BY(lock) = 0;
};

// All that was lent to the library in this process. Lives as long as the process does.
class Bindings {
 public:
  static Bindings& Get();

  Lent<IAsyncQ> queue;
  Lent<ICache> cache;
  std::array<Lent<ILog>, 2> loggers;  // channel 1, the process's, and channel 2

  void SetServiceName(const char* name);
  [[nodiscard]] std::string GetServiceName();

 private:
  Mutex lock;
  std::string service_name TARN_GUARDED_BY(lock);
};

// Writes one line to the bound logger of channel 1, if there is one. Formats as printf.
void Log(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace tarn::fs
