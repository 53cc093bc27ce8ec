#pragma once

#include <string>
#include <sys/types.h>

#include "common/unique_fd.h"

// System calls wrapped once: EINTR is retried, descriptors are born close-on-exec. Failures leave
// errno as the call set it.
namespace tarn {

// Makes a system call again while a signal interrupts it before anything happened.
template <typename Call>
auto RetryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

// An open file or FIFO; not valid() on failure.
[[nodiscard]] UniqueFd OpenFile(const std::string& path, int flags, mode_t mode = 0);

// socket(2); not valid() on failure.
[[nodiscard]] UniqueFd OpenSocket(int family, int type);

// Waits for a connection; not valid() on failure.
[[nodiscard]] UniqueFd AcceptConnection(int listening_socket);

// Writes all of it, however many calls that takes; false on the first failure.
[[nodiscard]] bool WriteAll(int fd, const void* data, size_t length_bytes);

// The whole content of a file; false when it cannot be read or is larger than `limit_bytes`.
[[nodiscard]] bool ReadFile(const std::string& path, size_t limit_bytes, std::string& content);

}  // namespace tarn
