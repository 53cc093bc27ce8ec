#include "tests/support/program.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "common/posix.h"

namespace tarn::test {

namespace {

// The parent of a process; 0 when there is no such process.
pid_t ParentOf(pid_t process) {
  const std::string status = FileContent("/proc/" + std::to_string(process) + "/stat");
  const size_t name_end = status.rfind(')');  // a name may hold anything
  if (name_end == std::string::npos || status.size() < name_end + 4 ||
      status[name_end + 2] == 'Z') {
    return 0;
  }
  return std::atoi(status.c_str() + name_end + 4);
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments, const std::filesystem::path& home,
                 const std::filesystem::path& folder, std::filesystem::path output_file)
    : output(std::move(output_file)) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));  // execvp changes nothing
  }
  pointers.push_back(nullptr);
  const UniqueFd input = OpenFile("/dev/null", O_RDONLY);
  const UniqueFd writer = OpenFile(output, O_WRONLY | O_CREAT | O_APPEND, 0600);
  pid = ::fork();
  if (pid == 0) {
    const bool is_ready = ::prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && ::dup2(input.get(), 0) >= 0 &&
                          ::dup2(writer.get(), 1) >= 0 && ::dup2(writer.get(), 2) >= 0 &&
                          ::chdir(folder.c_str()) == 0 && ::setenv("HOME", home.c_str(), 1) == 0;
    if (is_ready) {
      ::execvp(pointers[0], pointers.data());
    }
    ::_exit(127);
  }
  EXPECT_GT(pid, 0);
}

Program::~Program() {
  for (const int signal : {SIGTERM, SIGKILL}) {
    if (IsRunning()) {
      (void)::kill(pid, signal);
      (void)WaitForEnd(std::chrono::seconds(10));
    }
  }
}

std::optional<int> Program::WaitForEnd(std::chrono::milliseconds patience) {
  int status = 0;
  if (!IsRunning() ||
      !WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, patience)) {
    return std::nullopt;
  }
  pid = -1;
  return status;
}

std::string FileContent(const std::filesystem::path& path) {
  std::string content;
  return ReadFile(path, size_t{1} << 30, content) ? content : "";
}

bool IsAlive(pid_t process) {
  return ParentOf(process) != 0;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const pid_t process = std::atoi(entry.path().filename().c_str());
    if (process > 0 && ParentOf(process) == parent) {
      children.push_back(process);
    }
  }
  return children;
}

}  // namespace tarn::test
