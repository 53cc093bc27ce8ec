#include "common/posix.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>

namespace tarn {

namespace {

#if !defined(SOCK_CLOEXEC)
UniqueFd CloseOnExec(int fd) {
  if (fd >= 0) {
    (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);  // cannot fail for a descriptor that is open
  }
  return UniqueFd(fd);
}
#endif

}  // namespace

UniqueFd OpenFile(const std::string& path, int flags, mode_t mode) {
  return UniqueFd(RetryOnInterrupt([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

UniqueFd OpenSocket(int family, int type) {
#if defined(SOCK_CLOEXEC)
  return UniqueFd(::socket(family, type | SOCK_CLOEXEC, 0));
#else
  return CloseOnExec(::socket(family, type, 0));
#endif
}

UniqueFd AcceptConnection(int listening_socket) {
#if defined(SOCK_CLOEXEC)
  return UniqueFd(RetryOnInterrupt(
      [&] { return ::accept4(listening_socket, nullptr, nullptr, SOCK_CLOEXEC); }));
#else
  return CloseOnExec(
      RetryOnInterrupt([&] { return ::accept(listening_socket, nullptr, nullptr); }));
#endif
}

bool WriteAll(int fd, const void* data, size_t length_bytes) {
  const char* next = static_cast<const char*>(data);
  while (length_bytes > 0) {
    const ssize_t written = RetryOnInterrupt([&] { return ::write(fd, next, length_bytes); });
    if (written <= 0) {
      return false;
    }
    next += written;
    length_bytes -= static_cast<size_t>(written);
  }
  return true;
}

bool ReadFile(const std::string& path, size_t limit_bytes, std::string& content) {
  const UniqueFd file = OpenFile(path, O_RDONLY);
  if (!file.valid()) {
    return false;
  }
  content.clear();
  std::array<char, 16384> part;
  for (;;) {
    const ssize_t count =
        RetryOnInterrupt([&] { return ::read(file.get(), part.data(), part.size()); });
    if (count <= 0) {
      return count == 0;
    }
    if (content.size() + static_cast<size_t>(count) > limit_bytes) {
      errno = EFBIG;
      return false;
    }
    content.append(part.data(), static_cast<size_t>(count));
  }
}

}  // namespace tarn
