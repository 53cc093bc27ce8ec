#pragma once

#include <functional>
#include <system_error>
#include <thread>
#include <utility>

namespace tarn::fs {

// A thread that is made when there is first work for it.
//
// Owned by what the thread works for, whose lock guards every call; only the end of the thread is
// waited for without that lock, by whoever has Taken it.
class LateThread {
 public:
  // Waits for the thread on destruction. On that thread itself, which is on its way out then, it
  // lets go of it; what the thread uses must be shared with it.
  class Ending {
   public:
    Ending() = default;
    explicit Ending(std::thread ending) : thread(std::move(ending)) {}
    Ending(Ending&&) = default;
    Ending& operator=(Ending&&) = default;
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;
    ~Ending() {
      if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
      } else if (thread.joinable()) {
        thread.join();
      }
    }

   private:
    std::thread thread;
  };

  // False: no thread can be had now.
  bool Ensure(std::function<void()> work) {
    if (!thread.joinable()) {
      try {
        thread = std::thread(std::move(work));
      } catch (const std::system_error&) {
        return false;
      }
    }
    return true;
  }

  // The owner has told the thread to end.
  [[nodiscard]] Ending Take() { return Ending(std::exchange(thread, {})); }

 private:
  std::thread thread;
};

}  // namespace tarn::fs
