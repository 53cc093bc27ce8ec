#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <sys/types.h>

#include "common/sync.h"

namespace tarn {

// The environment variable that tells a drive process which service it belongs to, so that a
// service that died before the drive process could look is noticed too.
inline constexpr char kServicePidVariable[] = "TARNSVC_PID";

// One drive process, from its start to its end.
// Owned by its CParentPipe. start() and wait_for_end() run on the drive's waiting thread, which
// alone reaps the process; the rest on any thread.
class DriveProcess {
 public:
  // Starts the executable "tarnsvc" of the working directory with "-c", the id and the label.
  // Returns the process id; -1 when it could not be started, which counts as its end.
  [[nodiscard]] pid_t start(const std::string& id, const std::string& label) TARN_EXCLUDES(lock);

  // Instead of start(), when there is no thread for it: counts as its end.
  void give_up() TARN_EXCLUDES(lock) { set_ended(); }

  // Returns when the process has ended and is reaped.
  void wait_for_end() TARN_EXCLUDES(lock);

  // Gives a process that is to end 2 s, then asks it with SIGTERM, then ends it with SIGKILL.
  // Returns when it has ended, or at once when the service itself is stopping.
  void end() TARN_EXCLUDES(lock);

  [[nodiscard]] bool has_ended() const { return ended; }

 private:
  void set_ended() TARN_EXCLUDES(lock);
  bool ends_within(std::chrono::milliseconds limit) TARN_EXCLUDES(lock);
  void send_signal(int signal_number) TARN_EXCLUDES(lock);

  Mutex lock;
  CondVar changed;
  pid_t pid TARN_GUARDED_BY(lock) = -1;  // -1 once reaped: the number may belong to another process
  std::atomic<bool> ended{false};
};

// Forces the volume at `drive` off ("umount -f"; where that fails, as an ordinary user or with a
// volume in use, "fusermount3 -u -z") and waits for it. Starts the commands without a shell.
void ForceUnmount(const std::string& drive);

// Whether a volume at `drive` has lost the process that served it. Not the answer of a folder, of a
// volume that is well, or of nothing at all.
[[nodiscard]] bool IsDeadVolume(const std::string& drive);

}  // namespace tarn
