#pragma once

#include <list>
#include <string>
#include <utility>
#include <vector>

#include "common/sync.h"

namespace tarn::fs {

// Whether one of `some` is one of `others`, or lies above or below it.
[[nodiscard]] bool Meet(const std::vector<std::string>& some,
                        const std::vector<std::string>& others);

// Keeps changes of the remote in an order that makes sense: two changes whose paths meet (the same
// path, or one below the other) happen one after the other, in order of arrival; all others at the
// same time. These are no locks of data: they are held while the remote works.
//
// Owns:    nothing; must outlive its holds.
// Threads: any.
class PathLocks {
 public:
  // The right to change some paths, given back on destruction.
  class Hold {
   public:
    Hold() = default;
    Hold(Hold&& other) noexcept : owner(std::exchange(other.owner, nullptr)), place(other.place) {}
    Hold& operator=(Hold&& other) noexcept;
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { Release(); }

   private:
    friend class PathLocks;
    Hold(PathLocks* locks, std::list<std::vector<std::string>>::iterator request)
        : owner(locks), place(request) {}
    void Release();

    PathLocks* owner = nullptr;
    std::list<std::vector<std::string>>::iterator place;
  };

  // Waits until no earlier request meets one of `paths`.
  [[nodiscard]] Hold Take(std::vector<std::string> paths);

 private:
  Mutex lock;
  CondVar released;
  // Every request in order of arrival, those that wait and those that hold.
  std::list<std::vector<std::string>> requests TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
