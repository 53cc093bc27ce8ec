#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/service/wait.h"

namespace tarn::test {

// What a file holds; nothing when it cannot be read, as of a process that ends meanwhile.
[[nodiscard]] std::string FileContent(const std::filesystem::path& path);

// A program that a test runs beside itself, found in PATH, with no input and its output and errors
// at the end of a file. The destructor ends it if it still runs, with SIGTERM and where that does
// not help with SIGKILL, and reaps it. It also ends with the thread that started it, so that no
// test leaves one behind, however it dies.
class Program {
 public:
  // `home` becomes HOME; it starts in `folder`.
  Program(const std::vector<std::string>& arguments, const std::filesystem::path& home,
          const std::filesystem::path& folder, std::filesystem::path output_file);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Waits for its end and reaps it. Its status as waitpid tells it; nothing: it has not ended in
  // time, or before.
  [[nodiscard]] std::optional<int> WaitForEnd(std::chrono::milliseconds patience = kPatience);

  [[nodiscard]] bool IsRunning() const { return pid > 0; }
  [[nodiscard]] pid_t Pid() const { return pid; }
  [[nodiscard]] std::string Output() const { return FileContent(output); }

 private:
  pid_t pid = -1;
  const std::filesystem::path output;
};

// Not for one that has ended but was not reaped.
[[nodiscard]] bool IsAlive(pid_t process);

// Ids of the direct children of a process.
[[nodiscard]] std::vector<pid_t> ChildrenOf(pid_t parent);

}  // namespace tarn::test
