#include "platform/logger/name_claim.h"

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/posix.h"

namespace tarn {

namespace {

constexpr size_t kWholeNameBytes = 60;  // three characters each at most: far below a name's 255

std::string Hex(std::uint64_t value, int digits) {
  std::string text(static_cast<size_t>(digits), '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, value >>= 4) {
    *digit = "0123456789abcdef"[value & 0xF];
  }
  return text;
}

std::uint64_t Fnv1a(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  }
  return hash;
}

// Lower case only, because some file systems do not tell the cases apart.
bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// Whether `path` still names the file that is open: its last holder may have removed it in between.
bool StillNamed(const std::string& path, int fd) {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(fd, &opened) == 0 &&
         named.st_ino == opened.st_ino && named.st_dev == opened.st_dev;
}

}  // namespace

std::string NameClaim::FileName(std::string_view name) {
  std::string file_name;
  for (const char c : name.substr(0, kWholeNameBytes)) {
    file_name += IsPlain(c) ? std::string(1, c) : "%" + Hex(static_cast<unsigned char>(c), 2);
  }
  if (name.size() > kWholeNameBytes) {
    file_name += "~" + Hex(Fnv1a(name), 16);
  }
  return file_name + ".name";
}

std::optional<NameClaim> NameClaim::Take(const std::string& folder, std::string_view name) {
  const std::string path = folder + "/" + FileName(name);
  for (;;) {
    UniqueFd lock = OpenFile(path, O_RDWR | O_CREAT, 0600);
    if (!lock.valid() ||
        RetryOnInterrupt([&] { return ::flock(lock.get(), LOCK_EX | LOCK_NB); }) != 0) {
      return std::nullopt;
    }
    if (StillNamed(path, lock.get())) {
      return NameClaim(path, std::move(lock));
    }
  }
}

NameClaim::NameClaim(std::string file_path, UniqueFd lock_fd)
    : path(std::move(file_path)), lock(std::move(lock_fd)) {}

NameClaim::~NameClaim() {
  if (lock.valid()) {
    (void)::unlink(path.c_str());  // while the lock is held, so that it is ours; if not: it stays
  }
}

}  // namespace tarn
