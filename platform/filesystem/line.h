#pragma once

#include "common/sync.h"
#include "platform/filesystem/attributes.h"

namespace tarn::fs {

// What is known of the way to the remote: how long it takes for an answer to come, and how much
// comes at a time. Decides how much may be fetched that nobody has asked for.
//
// Threads: any.
class Line {
 public:
  // Something that comes from the remote, from its request to its end.
  struct Transfer {
    Clock::time_point begun;
    std::uint64_t moved_before;
  };
  [[nodiscard]] Transfer Begin();
  void End(const Transfer& transfer, size_t bytes);

  // Of an answer without content; zero: not known yet.
  [[nodiscard]] Clock::duration RoundTrip() const;
  // How many bytes come in this time, of all that is fetched together. No limit while nothing is
  // known.
  [[nodiscard]] std::uint64_t BytesIn(Clock::duration time) const;

 private:
  mutable Mutex lock;
  std::uint64_t moved TARN_GUARDED_BY(lock) = 0;          // bytes in all
  Clock::duration round_trip TARN_GUARDED_BY(lock) = {};  // the shortest, of late
  double bytes_per_second TARN_GUARDED_BY(lock) = 0;      // 0: not known yet
};

}  // namespace tarn::fs
