#pragma once

#include <array>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// A folder for a log file, gone with the test.
class LogFolderTest : public testing::Test {
 protected:
  LogFolderTest() {
    std::array<char, 32> name{"/tmp/tarn_logXXXXXX"};
    folder = ::mkdtemp(name.data());
    log_path = folder / "log";
  }
  ~LogFolderTest() override { std::filesystem::remove_all(folder); }

  static std::vector<std::string> Lines(const std::filesystem::path& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  std::filesystem::path folder;
  std::filesystem::path log_path;
};

// Runs `body` in a child, which then ends at once with its result as exit status.
inline pid_t Fork(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(60);  // a child that hangs ends, and its status tells
    ::_exit(body());
  }
  return child;
}

inline int StatusOf(pid_t child) {
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
