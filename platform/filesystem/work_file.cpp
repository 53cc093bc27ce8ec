#include "platform/filesystem/work_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "platform/filesystem/bindings.h"

namespace tarn::fs {

namespace {

constexpr std::uint64_t kMaxSize = std::numeric_limits<off_t>::max();

std::string WorkFolder() {
  const Lent<ICache>::Lease cache(Bindings::Get().cache);
  if (const char* folder = cache ? cache->GetFolder() : nullptr; folder != nullptr) {
    return folder;
  }
  const char* temporary = std::getenv("TMPDIR");
  return temporary != nullptr && *temporary == '/' ? temporary : "/tmp";
}

UniqueFd MakeNameless(const std::string& folder) {
  std::string path = folder + "/.work-XXXXXX";
  UniqueFd file(::mkostemp(path.data(), O_CLOEXEC));  // mode 0600
  if (file.valid()) {
    (void)::unlink(path.c_str());  // nothing worse than a left-over name
  }
  return file;
}

int PwriteAll(int fd, const void* data, size_t length, std::uint64_t offset, size_t& written) {
  const char* const bytes = static_cast<const char*>(data);
  for (written = 0; written < length;) {
    const ssize_t count =
        ::pwrite(fd, bytes + written, length - written, static_cast<off_t>(offset + written));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return count == 0 ? EIO : errno;
    }
    written += static_cast<size_t>(count);
  }
  return 0;
}

}  // namespace

FS_TIME Now() {
  timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  return {now.tv_sec, static_cast<int>(now.tv_nsec)};
}

int WorkFile::Make(std::shared_ptr<WorkFile>& file) {
  UniqueFd content = MakeNameless(WorkFolder());
  if (!content.valid()) {
    return errno;
  }
  file = std::make_shared<WorkFile>(std::move(content));
  file->SetFilled(Now());
  return 0;
}

int WorkFile::Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) const {
  const std::uint64_t size = GetSize();
  const size_t wanted = offset >= size ? 0 : std::min<std::uint64_t>(length, size - offset);
  char* const bytes = static_cast<char*>(buffer);
  for (received = 0; received < wanted;) {
    const ssize_t count = ::pread(fd.get(), bytes + received, wanted - received,
                                  static_cast<off_t>(offset + received));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      return errno;
    }
    if (count == 0) {
      break;  // cut short meanwhile
    }
    received += static_cast<size_t>(count);
  }
  return 0;
}

int WorkFile::Write(std::uint64_t offset, const void* data, size_t length, size_t& written) {
  if (offset > kMaxSize || length > kMaxSize - offset) {
    return EFBIG;
  }
  const int error = PwriteAll(fd.get(), data, length, offset, written);
  if (written == 0) {
    return error;
  }
  const MutexLock guard(lock);  // after the bytes are there, so that no upload calls them sent
  state.size = std::max(state.size, offset + written);
  Changed();
  return 0;
}

int WorkFile::SetSize(std::uint64_t size) {
  if (size > kMaxSize) {
    return EFBIG;
  }
  if (::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) {
    return errno;
  }
  const MutexLock guard(lock);
  state.size = size;
  Changed();
  return 0;
}

int WorkFile::Fill(std::uint64_t offset, const void* data, size_t length) {
  size_t written = 0;
  if (const int error = PwriteAll(fd.get(), data, length, offset, written); error != 0) {
    return error;
  }
  const MutexLock guard(lock);
  state.size = std::max(state.size, offset + length);
  return 0;
}

std::uint64_t WorkFile::GetSize() const {
  const MutexLock guard(lock);
  return state.size;
}

FS_TIME WorkFile::GetModified() const {
  const MutexLock guard(lock);
  return state.modified;
}

void WorkFile::SetModified(const FS_TIME& time) {
  const MutexLock guard(lock);
  Changed();
  state.modified = time;
}

void WorkFile::SetFilled(const FS_TIME& remote_time) {
  const MutexLock guard(lock);
  state.modified = remote_time;
}

WorkFile::State WorkFile::GetState() const {
  const MutexLock guard(lock);
  return state;
}

bool WorkFile::IsDirty() const {
  const MutexLock guard(lock);
  return state.change != stored_change;
}

void WorkFile::MarkDirty() {
  const MutexLock guard(lock);
  ++state.change;
}

void WorkFile::MarkStored(const State& stored) {
  const MutexLock guard(lock);
  stored_change = std::max(stored_change, stored.change);
}

void WorkFile::Changed() {
  ++state.change;
  state.modified = Now();
}

}  // namespace tarn::fs
