#pragma once

#include <chrono>
#include <cstdint>

#include "common/sync.h"

namespace tarn {

// Holds back transfers to a common speed and ends them on request. One per protocol object; every
// transfer of it shares the one speed. Any thread.
class Throttle {
 public:
  // Bytes per second for all transfers together; 0 or less: no limit. Applies at once.
  void SetLimit(long long bytes_per_second);
  [[nodiscard]] long long GetLimit();  // 0: none

  // Ends every transfer that is running now; later ones are not touched.
  void CancelAll();

  // What a transfer asks for at its beginning and gives with each part.
  using Ticket = std::uint64_t;
  [[nodiscard]] Ticket Begin();
  [[nodiscard]] bool IsCancelled(Ticket ticket);

  // Waits for a while. False: the transfer was cancelled.
  [[nodiscard]] bool Rest(Ticket ticket, std::chrono::milliseconds duration);

  // The size of the next part, so that a wait for it stays short.
  [[nodiscard]] long long PartBytes();

  // Waits until `bytes` more may be moved. False: the transfer was cancelled.
  [[nodiscard]] bool Pass(Ticket ticket, long long bytes);

 private:
  using Clock = std::chrono::steady_clock;

  Mutex lock;
  CondVar changed;
  long long limit TARN_GUARDED_BY(lock) = 0;          // bytes per second
  Ticket cancelled TARN_GUARDED_BY(lock) = 0;         // tickets below this one have ended
  Clock::time_point free_at TARN_GUARDED_BY(lock){};  // when all bytes let through so far have gone
};

}  // namespace tarn
