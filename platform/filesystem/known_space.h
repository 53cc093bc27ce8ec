#pragma once

#include "common/sync.h"
#include "platform/filesystem/background.h"
#include "platform/filesystem/remote.h"

namespace tarn::fs {

struct Space {
  unsigned long long total = 0;  // bytes
  unsigned long long free = 0;
};

// How much room the remote has, as it last told; asked for in the background.
//
// Owned by what `owner` gives a share of; uses the remote.
// Threads: any. The lock guards what is known; not held while the remote works.
class KnownSpace {
 public:
  KnownSpace(Remote& of, Owner part_of) : remote(of), owner(std::move(part_of)) {}

  [[nodiscard]] Space Get();  // at once; what is old is asked anew
  void Ask();

 private:
  static constexpr unsigned long long kUnknown = 1ULL << 40;  // enough for any copy dialog

  Remote& remote;
  const Owner owner;
  Mutex lock;
  Space space TARN_GUARDED_BY(lock) = {kUnknown, kUnknown};
  Clock::time_point answered TARN_GUARDED_BY(lock) = {};
  bool is_asking TARN_GUARDED_BY(lock) = false;
};

}  // namespace tarn::fs
