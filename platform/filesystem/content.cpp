#include "platform/filesystem/content.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <utility>
#include <vector>

#include "common/posix.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr size_t kCopyBytes = size_t{1} << 20;

// Copies within the kernel, or shares the blocks where the disk's file system can.
bool CopyInKernel([[maybe_unused]] int from, [[maybe_unused]] int to,
                  [[maybe_unused]] std::uint64_t length, std::uint64_t& copied) {
#if defined(__linux__)
  while (copied < length) {
    auto in = static_cast<off_t>(copied);
    auto out = static_cast<off_t>(copied);
    const ssize_t count = ::copy_file_range(from, &in, to, &out, length - copied, 0);
    if (count <= 0) {
      return false;
    }
    copied += static_cast<std::uint64_t>(count);
  }
  return true;
#else
  return false;
#endif
}

}  // namespace

Content::Content(UniqueFd file, std::string in_folder, std::string file_path, bool is_kept)
    : fd(std::make_shared<const UniqueFd>(std::move(file))),
      path(std::move(file_path)),
      kept(is_kept),
      folder(std::move(in_folder)) {}

Content::~Content() {
  const MutexLock guard(lock);
  if (!kept && !path.empty()) {
    (void)::unlink(path.c_str());  // nothing worse than a left-over file
  }
}

int Content::Make(const std::string& folder, bool is_named, std::shared_ptr<Content>& content) {
  std::string path = folder + "/.work-XXXXXX";
  UniqueFd file(::mkostemp(path.data(), O_CLOEXEC));  // mode 0600
  if (!file.valid()) {
    return errno;
  }
  if (!is_named) {
    (void)::unlink(path.c_str());  // as above
  }
  content = std::make_shared<Content>(std::move(file), folder, is_named ? path : "", false);
  return 0;
}

int Content::Open(const std::string& path, std::shared_ptr<Content>& content) {
  UniqueFd file = tarn::OpenFile(path, O_RDWR | O_NOFOLLOW);
  if (!file.valid()) {
    return errno;
  }
  content = std::make_shared<Content>(std::move(file), std::string(FolderOf(path)), path, true);
  return 0;
}

int Content::Use(Descriptor& descriptor) const {
  const MutexLock guard(lock);
  if (!fd) {
    UniqueFd file = tarn::OpenFile(path, O_RDWR | O_NOFOLLOW);
    if (!file.valid()) {
      return errno;
    }
    fd = std::make_shared<const UniqueFd>(std::move(file));
  }
  descriptor = fd;
  return 0;
}

int Content::Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) const {
  received = 0;
  Descriptor file;
  if (const int error = Use(file); error != 0) {
    return error;
  }
  char* const bytes = static_cast<char*>(buffer);
  while (received < length) {
    const ssize_t count = RetryOnInterrupt([&] {
      return ::pread(file->get(), bytes + received, length - received,
                     static_cast<off_t>(offset + received));
    });
    if (count < 0) {
      return errno;
    }
    if (count == 0) {
      break;
    }
    received += static_cast<size_t>(count);
  }
  return 0;
}

int Content::Write(std::uint64_t offset, const void* data, size_t length, size_t& written) {
  written = 0;
  Descriptor file;
  if (const int error = Use(file); error != 0) {
    return error;
  }
  const char* const bytes = static_cast<const char*>(data);
  while (written < length) {
    const ssize_t count = RetryOnInterrupt([&] {
      return ::pwrite(file->get(), bytes + written, length - written,
                      static_cast<off_t>(offset + written));
    });
    if (count <= 0) {
      return count == 0 ? EIO : errno;
    }
    written += static_cast<size_t>(count);
  }
  return 0;
}

int Content::SetSize(std::uint64_t size) {
  Descriptor file;
  if (const int error = Use(file); error != 0) {
    return error;
  }
  const int result =
      RetryOnInterrupt([&] { return ::ftruncate(file->get(), static_cast<off_t>(size)); });
  return result == 0 ? 0 : errno;
}

int Content::Copy(std::uint64_t length, std::shared_ptr<Content>& copy) const {
  std::shared_ptr<Content> made;
  Descriptor from;
  Descriptor to;
  if (const int error = Use(from); error != 0) {
    return error;
  }
  if (const int error = Make(folder, !Path().empty(), made); error != 0) {
    return error;
  }
  if (const int error = made->Use(to); error != 0) {
    return error;
  }
  std::uint64_t copied = 0;
  if (!CopyInKernel(from->get(), to->get(), length, copied)) {
    std::vector<char> buffer(std::min<std::uint64_t>(kCopyBytes, length - copied));
    while (copied < length) {
      size_t received = 0;
      size_t written = 0;
      const size_t wanted = std::min<std::uint64_t>(buffer.size(), length - copied);
      if (const int error = Read(copied, buffer.data(), wanted, received); error != 0) {
        return error;
      }
      if (received == 0) {
        return EIO;
      }
      if (const int error = made->Write(copied, buffer.data(), received, written); error != 0) {
        return error;
      }
      copied += received;
    }
  }
  copy = std::move(made);
  return 0;
}

int Content::KeepAs(const std::string& new_path) {
  const MutexLock guard(lock);
  if (path.empty()) {
    return EINVAL;
  }
  if (::rename(path.c_str(), new_path.c_str()) != 0) {
    return errno;
  }
  path = new_path;
  kept = true;
  return 0;
}

void Content::Discard() {
  const MutexLock guard(lock);
  kept = false;
}

bool Content::IsKept() const {
  const MutexLock guard(lock);
  return kept;
}

std::string Content::Path() const {
  const MutexLock guard(lock);
  return path;
}

void Content::LetGo() {
  const MutexLock guard(lock);
  if (!path.empty()) {
    fd.reset();
  }
}

}  // namespace tarn::fs
