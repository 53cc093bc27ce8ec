#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "common/unique_fd.h"

namespace tarn::test {

// A helper program of a test: started at construction with pipes to its standard input and output,
// ended and reaped at destruction. It also ends when the thread that started it does, so that no
// test leaves one behind, however it dies.
class ChildProcess {
 public:
  // The first argument is the program, looked up in PATH.
  explicit ChildProcess(const std::vector<std::string>& arguments);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next line that it prints; empty when it ends or says nothing for 10 s.
  [[nodiscard]] std::string ReadLine();

  [[nodiscard]] pid_t Pid() const { return pid; }

  // False when it has not ended after 10 s.
  [[nodiscard]] bool WaitForEnd() { return EndsWithin(10'000); }

  // True while it has not ended.
  [[nodiscard]] bool Running();

 private:
  bool EndsWithin(int limit_ms);

  pid_t pid = -1;  // -1 once reaped
  UniqueFd input;
  UniqueFd output;
};

}  // namespace tarn::test
