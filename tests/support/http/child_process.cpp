#include "tests/support/http/child_process.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

namespace tarn::test {

namespace {

constexpr int kAnswerLimitMs = 10'000;
constexpr int kEndLimitMs = 5'000;

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
};

Pipe MakePipe() {
  std::array<int, 2> ends{-1, -1};
  if (::pipe(ends.data()) == 0) {
    (void)::fcntl(ends[0], F_SETFD, FD_CLOEXEC);
    (void)::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

[[noreturn]] void RunChild(char** arguments, int input, int output) {
#if defined(__linux__)
  (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
#endif
  (void)::dup2(input, STDIN_FILENO);
  (void)::dup2(output, STDOUT_FILENO);
  ::execvp(arguments[0], arguments);
  ::_exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
  std::vector<char*> vector;
  vector.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    vector.push_back(const_cast<char*>(argument.c_str()));  // execvp leaves them as they are
  }
  vector.push_back(nullptr);
  Pipe to_child = MakePipe();
  Pipe from_child = MakePipe();
  pid = ::fork();
  if (pid == 0) {
    RunChild(vector.data(), to_child.read_end.get(), from_child.write_end.get());
  }
  input = std::move(to_child.write_end);
  output = std::move(from_child.read_end);
}

ChildProcess::~ChildProcess() {
  input.reset();
  if (pid > 0 && Running()) {
    ::kill(pid, SIGTERM);
    if (!EndsWithin(kEndLimitMs)) {
      ::kill(pid, SIGKILL);
      (void)EndsWithin(kEndLimitMs);
    }
  }
}

bool ChildProcess::Running() {
  if (pid > 0 && ::waitpid(pid, nullptr, WNOHANG) == pid) {
    pid = -1;
  }
  return pid > 0;
}

bool ChildProcess::EndsWithin(int limit_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  while (Running()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string ChildProcess::ReadLine() {
  std::string line;
  char next = '\0';
  pollfd wait{.fd = output.get(), .events = POLLIN, .revents = 0};
  while (::poll(&wait, 1, kAnswerLimitMs) > 0 && ::read(output.get(), &next, 1) == 1) {
    if (next == '\n') {
      break;
    }
    line += next;
  }
  return line;
}

}  // namespace tarn::test
