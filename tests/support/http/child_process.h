#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

#include "tests/support/service/wait.h"

namespace tarn::test {

// A server or tool that a test runs beside itself, ended and reaped at destruction. It also ends
// when the thread that started it does, so that no test leaves one behind, however it dies.
class ChildProcess {
 public:
  // The first argument is the program, looked up in PATH and then where systems keep their servers,
  // which is in the PATH of administrators only.
  explicit ChildProcess(std::vector<std::string> arguments) {
    const char* const path = std::getenv("PATH");
    const std::string places =
        std::string("PATH=") + (path != nullptr ? path : "") + ":/usr/local/sbin:/usr/sbin:/sbin";
    arguments.insert(arguments.begin(), {"env", places});
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {
#if defined(__linux__)
      (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
#endif
      ::execvp(pointers[0], pointers.data());
      ::_exit(127);
    }
  }
  ~ChildProcess() {
    for (const int signal : {SIGTERM, SIGKILL}) {
      if (Running()) {
        (void)::kill(pid, signal);
        WaitForEnd();
      }
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] bool Running() {
    if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == pid) {
      pid = -1;
    }
    return pid > 0;
  }

  [[nodiscard]] pid_t Pid() const {
    return pid;
  }

  // For up to 10 s.
  void WaitForEnd() {
    (void)WaitUntil([this] { return !Running(); }, std::chrono::seconds(10));
  }

 private:
  pid_t pid = -1;  // -1 once reaped
};

}  // namespace tarn::test
