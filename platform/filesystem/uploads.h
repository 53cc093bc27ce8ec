#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/sync.h"
#include "interfaces/aerror.h"
#include "platform/filesystem/attributes.h"
#include "platform/filesystem/late_thread.h"
#include "platform/filesystem/nodes.h"

namespace tarn::fs {

// Which files are to be sent, and when: several at once, each by one sender at a time. A file that
// changes while it waits is sent once; one that changes while it is sent is sent again. What fails
// is tried again after growing pauses, for as long as this runs.
//
// Owns:    the thread that waits for the ends of pauses, and that sends itself where the bound
//          queue takes no work; it ends in Stop. Senders in the queue share ownership.
// Threads: any. No lock is held while a file is sent.
// Errors:  those of the sending function, kept for Get.
class Uploads : public std::enable_shared_from_this<Uploads> {
 public:
  // So many leave workers of the queue to readers; and more at once are no faster on any network
  // that one client can fill.
  static constexpr int kMaxSending = 8;

  // Sends one file. SUCCESS: there is nothing more to send of it. RETRY_UPLOAD: at once again.
  using Send = std::function<AERROR(Ino)>;

  struct Pauses {
    std::chrono::milliseconds first{1000};  // doubled each time
    std::chrono::milliseconds longest{300'000};
  };

  enum class State { kNothing, kWaiting, kSending, kFailed };
  struct Status {
    State state = State::kNothing;
    AERROR error = SUCCESS;  // when failed
  };

  Uploads(Send sender, Pauses between_attempts);
  ~Uploads();
  Uploads(const Uploads&) = delete;
  Uploads& operator=(const Uploads&) = delete;

  void Add(Ino ino);   // it has something to send
  void Drop(Ino ino);  // it has nothing any more
  void Hasten();       // pauses end now
  // Nothing begins any more. What is being sent goes on. Not from the sending function.
  void Stop();

  [[nodiscard]] Status Get(Ino ino);
  // A file whose present state is to be sent.
  struct Awaited {
    Ino ino = 0;
    std::shared_ptr<const std::atomic<std::uint64_t>> progress;  // grows while it moves
  };
  // Tries everything once more and waits until these are sent as they are now, or nothing of them
  // has moved for `patience`, or what is left of them was refused. What changes meanwhile is sent,
  // too, but not waited for. Returns 0, or the number of all files that are left.
  [[nodiscard]] size_t Finish(Clock::duration patience, const std::vector<Awaited>& awaited);

 private:
  struct File {
    State state = State::kWaiting;
    bool again = false;  // changed while it was being sent
    int failures = 0;    // one after the other
    AERROR error = SUCCESS;
    Clock::time_point due = {};  // when failed
    bool is_last_try = false;    // begun since Finish began
    bool refused = false;        // such a try failed, by a remote that can be reached
    int awaited = 0;             // times that it is still to be sent before Finish ends
  };

  void Sent(Ino ino, AERROR error) TARN_REQUIRES(lock);
  [[nodiscard]] Clock::duration PauseAfter(int failures) TARN_REQUIRES(lock);
  void MakeReady(Ino ino, File& file) TARN_REQUIRES(lock);
  // Puts senders to work as long as there is something for them.
  void StartSenders() TARN_EXCLUDES(lock);
  void SendAllReady() TARN_EXCLUDES(lock);
  void SenderEnded() TARN_EXCLUDES(lock);
  Clock::time_point EndPauses() TARN_REQUIRES(lock);
  void WaitForPauses();
  [[nodiscard]] bool NothingMoreToTry() const TARN_REQUIRES(lock);
  // How many are not sent yet, and how far they have come.
  [[nodiscard]] std::pair<size_t, std::uint64_t> Left(const std::vector<Awaited>& awaited) const
      TARN_REQUIRES(lock);

  const Send send;
  const Pauses pauses;

  Mutex lock;
  CondVar changed;
  std::unordered_map<Ino, File> files TARN_GUARDED_BY(lock);
  std::deque<Ino> ready TARN_GUARDED_BY(lock);  // in the order of their changes
  int senders TARN_GUARDED_BY(lock) = 0;
  int sending TARN_GUARDED_BY(lock) = 0;  // of them
  bool finishing TARN_GUARDED_BY(lock) = false;
  bool stopped TARN_GUARDED_BY(lock) = false;
  std::minstd_rand random TARN_GUARDED_BY(lock);
  LateThread waiter TARN_GUARDED_BY(lock);
};

}  // namespace tarn::fs
