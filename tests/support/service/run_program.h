#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace tarn::test {

// A program that a test runs beside itself, with its standard output and error in one pipe. The
// destructor ends it with SIGKILL if it still runs, and reaps it.
class RunningProgram {
 public:
  // arguments[0] is looked up in PATH. `home` becomes HOME; the working folder is `folder`.
  RunningProgram(const std::vector<std::string>& arguments, const std::filesystem::path& home,
                 const std::filesystem::path& folder);
  ~RunningProgram();
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Reads on until the output holds `text`. False when it ended, or nothing came, before.
  [[nodiscard]] bool WaitForOutput(const std::string& text);

  // Waits for its end. The exit status; 128 + the signal's number for one that was killed; -1, with
  // a failed expectation, for one that does not end.
  [[nodiscard]] int WaitForEnd();

  void Signal(int signal) const;
  [[nodiscard]] const std::string& Output() const { return output; }

 private:
  [[nodiscard]] bool ReadSome();

  pid_t pid = -1;
  UniqueFd reader;
  std::string output;
};

struct Ran {
  int status;
  std::string output;
};

// Runs a program to its end.
[[nodiscard]] Ran RunProgram(const std::vector<std::string>& arguments,
                             const std::filesystem::path& home,
                             const std::filesystem::path& folder);

}  // namespace tarn::test
