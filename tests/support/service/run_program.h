#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/unique_fd.h"

namespace tarn::test {

// Starts a program, found in PATH, with no input and its output and errors in `output`, and returns
// its process id. `home` becomes HOME.
[[nodiscard]] pid_t Spawn(const std::vector<std::string>& arguments,
                          const std::filesystem::path& home, const std::filesystem::path& folder,
                          int output);

// A program that a test runs beside itself, in `home`, with its output and errors in one pipe. The
// destructor ends it with SIGKILL if it still runs, and reaps it.
class RunningProgram {
 public:
  RunningProgram(const std::vector<std::string>& arguments, const std::filesystem::path& home);
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Reads on until the output holds `text`. False when it ended, or nothing came, before.
  [[nodiscard]] bool WaitForOutput(const std::string& text);

  // Waits for its end. The exit status; -1 for one that was killed or, with a failed expectation,
  // does not end.
  [[nodiscard]] int WaitForEnd();

  [[nodiscard]] pid_t Pid() const { return pid; }
  [[nodiscard]] const std::string& Output() const { return output; }

 private:
  [[nodiscard]] bool ReadSome();

  pid_t pid = -1;
  UniqueFd reader;
  std::string output;
};

}  // namespace tarn::test
