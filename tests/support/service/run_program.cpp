#include "tests/support/service/run_program.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/posix.h"
#include "tests/support/service/wait.h"

namespace tarn::test {

pid_t Spawn(const std::vector<std::string>& arguments, const std::filesystem::path& home,
            const std::filesystem::path& folder, int output) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));  // execvp changes nothing
  }
  pointers.push_back(nullptr);
  const UniqueFd input = OpenFile("/dev/null", O_RDONLY);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const bool is_ready = ::dup2(input.get(), 0) >= 0 && ::dup2(output, 1) >= 0 &&
                          ::dup2(output, 2) >= 0 && ::chdir(folder.c_str()) == 0 &&
                          ::setenv("HOME", home.c_str(), 1) == 0;
    if (is_ready) {
      ::execvp(pointers[0], pointers.data());
    }
    ::_exit(127);
  }
  EXPECT_GT(pid, 0);
  return pid;
}

RunningProgram::RunningProgram(const std::vector<std::string>& arguments,
                               const std::filesystem::path& home) {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  reader.reset(ends[0]);
  const UniqueFd writer(ends[1]);
  pid = Spawn(arguments, home, home, writer.get());
}

RunningProgram::~RunningProgram() {
  if (pid > 0) {
    (void)::kill(pid, SIGKILL);
    (void)::waitpid(pid, nullptr, 0);
  }
}

bool RunningProgram::ReadSome() {
  pollfd entry{reader.get(), POLLIN, 0};
  const int patience_ms = static_cast<int>(std::chrono::milliseconds(kPatience).count());
  std::array<char, 4096> part;
  if (::poll(&entry, 1, patience_ms) <= 0) {
    return false;
  }
  const ssize_t count = ::read(reader.get(), part.data(), part.size());
  output.append(part.data(), static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return count > 0;
}

bool RunningProgram::WaitForOutput(const std::string& text) {
  bool is_there = output.find(text) != std::string::npos;
  while (!is_there && ReadSome()) {
    is_there = output.find(text) != std::string::npos;
  }
  return is_there;
}

int RunningProgram::WaitForEnd() {
  while (ReadSome()) {
  }
  int status = 0;
  if (pid <= 0 || !WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; })) {
    ADD_FAILURE() << "the program does not end";
    return -1;
  }
  pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarn::test
