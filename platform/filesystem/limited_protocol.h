#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"
#include "platform/filesystem/buffer.h"
#include "platform/filesystem/helper_threads.h"
#include "platform/filesystem/limits.h"

namespace tarn::fs {

// One protocol of a drive, whose calls come back within their limits whatever the module does.
//
// Calls run on helper threads. One that exceeds its limit is left behind there, as are all that
// wait when the remote turns out to be unreachable; from then on calls fail at once until the
// remote answers the probe. What a module works with (texts, buffers, sources) belongs to the call,
// so that nobody needs to wait for its end. A change that was left behind may still happen: until
// it has ended, no other change of what it concerns begins.
//
// After the machine has slept, connections are dead, though nobody has told: calls that run are
// made to fail soon, and those that only read begin again.
//
// Owns:    its share of the protocol, the helper threads, the thread that probes.
// Threads: any. The listener is called as Reachability says.
// Errors:  AERROR; DEVICE_NOT_READY for what did not come back, was not begun, and after Close.
class LimitedProtocol {
 public:
  using Operation = std::function<AERROR(IProtocol_V2&)>;

  // Waits for what the protocol says that it can do, as for every answer.
  LimitedProtocol(std::shared_ptr<IProtocol_V2> limited, const Limits& times,
                  Reachability::Listener told);
  ~LimitedProtocol();
  LimitedProtocol(const LimitedProtocol&) = delete;
  LimitedProtocol& operator=(const LimitedProtocol&) = delete;

  // `operation` must share or own all it refers to. `paths`: what it changes.
  [[nodiscard]] AERROR Ask(const Operation& operation);
  [[nodiscard]] AERROR Change(std::vector<std::string> paths, Operation operation);
  // Fills the buffer. `version`: the one that is wanted; null: whatever is there. After a failure
  // the module may still write into the buffer.
  [[nodiscard]] AERROR Read(const std::string& path, const std::string* version,
                            unsigned long long offset, const std::shared_ptr<Buffer>& buffer,
                            size_t& received);
  // The source and the progress are not called any more once this has returned.
  [[nodiscard]] AERROR Upload(const std::string& path, FS_SOURCE& source, unsigned long long size,
                              FS_PROGRESS progress, void* context);

  void Cancel();  // makes what runs fail soon
  // FS_CAPABILITY bits, as of the last call. At once.
  [[nodiscard]] unsigned long long GetCapabilities() const { return *capabilities; }
  [[nodiscard]] const Reachability& GetReachability() const { return reachability; }
  [[nodiscard]] std::shared_ptr<IProtocol_V2> Get() const { return protocol; }

  // Refuses what comes, gives up what waits, makes what runs fail soon.
  void Close();
  // After Close: until the module does nothing any more. False: it still does.
  [[nodiscard]] bool WaitIdle(Clock::time_point deadline) {
    return helpers->WaitIdle(deadline) && askers->WaitIdle(deadline);
  }

 private:
  class UploadCall;
  using Paths = std::vector<std::string>;
  // As HelperThreads::Patience, knowing when the call began.
  using Patience = std::function<Clock::time_point(Clock::time_point begun)>;

  // These answer PENDING for a call that was left behind. The second refuses what has no chance.
  [[nodiscard]] AERROR Run(HelperThreads& threads, Operation operation, const Patience& patience);
  [[nodiscard]] AERROR RunLimited(Operation operation, const Patience& patience);
  [[nodiscard]] AERROR RunReading(const Operation& operation, const Patience& patience);
  [[nodiscard]] AERROR RunChange(Paths paths, Operation operation, const Patience& patience);
  // The time of the next look at a call that is given up at `deadline` at the latest.
  [[nodiscard]] Clock::time_point NextLook(Clock::time_point begun, Clock::time_point deadline);
  [[nodiscard]] bool Probe();
  void Changed(bool is_reachable);
  void NoticeResume();
  void Note(AERROR error);
  [[nodiscard]] bool MeetsOneLeftBehind(const Paths& paths) TARN_EXCLUDES(lock);

  const std::shared_ptr<IProtocol_V2> protocol;
  const Limits limits;
  const Reachability::Listener listener;
  const std::shared_ptr<HelperThreads> helpers;
  const std::shared_ptr<HelperThreads> askers;  // for probes and cancelling, when all others hang
  const std::shared_ptr<std::atomic<unsigned long long>> capabilities =
      std::make_shared<std::atomic<unsigned long long>>(0);
  std::atomic<bool> closed = false;
  Suspension suspension;
  std::atomic<int> resumes = 0;

  Mutex lock;
  std::vector<std::weak_ptr<const Paths>> left_changes TARN_GUARDED_BY(lock);
  std::vector<std::weak_ptr<const bool>> left_probes TARN_GUARDED_BY(lock);

  Reachability reachability;  // last: its thread uses all of the above
};

}  // namespace tarn::fs
