#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

#include "common/unique_fd.h"

namespace tarn {

// The text file that all processes of the service log to, each through a LogFile of its own.
//
// Every line is one write on an append-only descriptor, so lines never mix. A line that would make
// the file larger than the limit moves it to "<path>.1" first, over an older one; the other
// processes notice that the path names another file and follow. Whoever finds the rotation under
// way elsewhere appends where it is, so nobody waits and a file may exceed the limit by a few
// lines.
//
// Beside the log lies the folder "<path>.locks": the lock of the rotation, and the names in use
// (name_claim.h).
//
// Threads: any, also the child of a threaded process before exec: there is no lock within the
// process and no heap memory in Append, and the descriptor is exchanged in one step.
class LogFile {
 public:
  static constexpr off_t kDefaultLimitBytes = 16L * 1024 * 1024;

  explicit LogFile(const std::string& absolute_path, off_t limit_bytes = kDefaultLimitBytes);

  // Opens or makes the file, for its owner alone, and the folder of locks. False: no logging here.
  [[nodiscard]] bool Open();

  // Appends one line, which has its newline. A line that cannot be written is lost.
  void Append(std::string_view line) const;

  [[nodiscard]] const std::string& locks_folder() const { return locks; }

 private:
  [[nodiscard]] UniqueFd OpenCurrent() const;
  void Follow() const;
  void Rotate(size_t line_bytes) const;

  std::string path;
  std::string older_path;
  std::string locks;
  std::string rotation_lock;
  off_t limit;  // bytes
  UniqueFd file;
};

}  // namespace tarn
