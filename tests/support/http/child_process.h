#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

namespace tarn::test {

// A server or tool that a test runs beside itself, ended and reaped at destruction. It also ends
// when the thread that started it does, so that no test leaves one behind, however it dies.
class ChildProcess {
 public:
  // The first argument is the program, looked up in PATH and then where systems keep their servers,
  // which is in the PATH of administrators only.
  explicit ChildProcess(const std::vector<std::string>& arguments) {
    const std::string program = Find(arguments.front());
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
      pointers.push_back(const_cast<char*>(argument.c_str()));  // execv leaves them as they are
    }
    pointers.push_back(nullptr);
    pid = ::fork();
    if (pid == 0) {
#if defined(__linux__)
      (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
#endif
      ::execv(program.c_str(), pointers.data());
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

  [[nodiscard]] pid_t Pid() const { return pid; }

  // For up to 10 s.
  void WaitForEnd() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (Running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

 private:
  static std::string Find(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders((path != nullptr ? path : "") +
                               std::string(":/usr/local/sbin:/usr/sbin:/sbin"));
    for (std::string folder; std::getline(folders, folder, ':');) {
      std::string program = folder + "/" + name;
      if (::access(program.c_str(), X_OK) == 0) {
        return program;
      }
    }
    return name;
  }

  pid_t pid = -1;  // -1 once reaped
};

}  // namespace tarn::test
