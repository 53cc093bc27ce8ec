#pragma once

#include <atomic>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "common/sync.h"

namespace tarn::fs {

// Whether one of `some` is one of `others`, or lies above or below it.
[[nodiscard]] bool Meet(const std::vector<std::string>& some,
                        const std::vector<std::string>& others);

// Which of the changes that come first are to end for the sake of one that waits for them.
enum class Haste { kNone, kUnlessQuick, kAtOnce };

// Keeps changes of the remote in an order that makes sense: two changes whose paths meet (the same
// path, or one below the other) happen one after the other, in order of arrival; all others at the
// same time. These are no locks of data: they are held while the remote works.
//
// Owns:    nothing; must outlive its holds.
// Threads: any.
class PathLocks {
  struct Request {
    explicit Request(std::vector<std::string> claimed) : paths(std::move(claimed)) {}

    const std::vector<std::string> paths;
    std::atomic<Haste> haste_of_others = Haste::kNone;
  };

 public:
  // A path that is to be changed.
  struct Claim {
    std::string path;
    Haste haste = Haste::kNone;  // with changes at or below the path
  };

  // The right to change some paths, given back on destruction.
  class Hold {
   public:
    Hold() = default;
    Hold(Hold&& other) noexcept : owner(std::exchange(other.owner, nullptr)), place(other.place) {}
    Hold& operator=(Hold&& other) noexcept;
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { Release(); }

    // Whether somebody who waits for this asks its holder to end; of a hold that is not given back.
    [[nodiscard]] Haste HasteOfOthers() const { return place->haste_of_others; }

   private:
    friend class PathLocks;
    Hold(PathLocks* locks, std::list<Request>::iterator request) : owner(locks), place(request) {}
    void Release();

    PathLocks* owner = nullptr;
    std::list<Request>::iterator place;
  };

  // Waits until no earlier request meets one of the paths.
  [[nodiscard]] Hold Take(const std::vector<Claim>& claims);

 private:
  Mutex lock;
  CondVar released;
  // Every request in order of arrival, those that wait and those that hold.
  std::list<Request> requests TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
