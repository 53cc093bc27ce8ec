#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// std::mutex and friends with the annotations that Clang's thread-safety analysis reads.
#if defined(__clang__)
#define TARN_ANNOTATE(x) __attribute__((x))
#else
#define TARN_ANNOTATE(x)
#endif
#define TARN_CAPABILITY(x) TARN_ANNOTATE(capability(x))
#define TARN_SCOPED_CAPABILITY TARN_ANNOTATE(scoped_lockable)
#define TARN_GUARDED_BY(x) TARN_ANNOTATE(guarded_by(x))
#define TARN_REQUIRES(...) TARN_ANNOTATE(requires_capability(__VA_ARGS__))
#define TARN_EXCLUDES(...) TARN_ANNOTATE(locks_excluded(__VA_ARGS__))
#define TARN_ACQUIRE(...) TARN_ANNOTATE(acquire_capability(__VA_ARGS__))
#define TARN_TRY_ACQUIRE(...) TARN_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_ANNOTATE(release_capability(__VA_ARGS__))
#define TARN_NO_THREAD_SAFETY_ANALYSIS TARN_ANNOTATE(no_thread_safety_analysis)

namespace tarn {

class TARN_CAPABILITY("mutex") Mutex {
 public:
  void lock() TARN_ACQUIRE() { mutex.lock(); }
  void unlock() TARN_RELEASE() { mutex.unlock(); }
  bool try_lock() TARN_TRY_ACQUIRE(true) { return mutex.try_lock(); }

 private:
  friend class CondVar;
  std::mutex mutex;
};

// Holds a Mutex for a scope. May be given up and taken again in between.
class TARN_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& held) TARN_ACQUIRE(held) : mutex(held) { mutex.lock(); }
  ~MutexLock() TARN_RELEASE() {
    if (locked) {
      mutex.unlock();
    }
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() TARN_RELEASE() {
    locked = false;
    mutex.unlock();
  }
  void lock() TARN_ACQUIRE() {
    mutex.lock();
    locked = true;
  }

 private:
  Mutex& mutex;
  bool locked = true;
};

// Waits with a Mutex that the caller holds. Spurious wake-ups happen: wait in a loop on the
// condition.
class CondVar {
 public:
  void wait(Mutex& held) TARN_REQUIRES(held) {
    std::unique_lock<std::mutex> borrowed(held.mutex, std::adopt_lock);
    condition.wait(borrowed);
    (void)borrowed.release();
  }
  // False when the time had come before a wake-up.
  template <typename Clock, typename Duration>
  bool wait_until(Mutex& held, std::chrono::time_point<Clock, Duration> deadline)
      TARN_REQUIRES(held) {
    std::unique_lock<std::mutex> borrowed(held.mutex, std::adopt_lock);
    const std::cv_status status = condition.wait_until(borrowed, deadline);
    (void)borrowed.release();
    return status == std::cv_status::no_timeout;
  }
  void notify_one() { condition.notify_one(); }
  void notify_all() { condition.notify_all(); }

 private:
  std::condition_variable condition;
};

}  // namespace tarn
