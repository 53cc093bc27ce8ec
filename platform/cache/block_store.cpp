#include "platform/cache/block_store.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "common/posix.h"

namespace tarn {

namespace {

off_t OffsetOf(std::uint32_t unit) {
  return static_cast<off_t>(unit * kUnitBytes);
}

// Calls transfer(position in the block, bytes, offset in the file) until all of `length` is done.
// It returns as pread and pwrite do. False, errno set, when a call fails or nothing moves.
template <typename Transfer>
bool TransferAll(const UnitRuns& runs, size_t length, Transfer transfer) {
  size_t done = 0;
  for (const UnitRun& run : runs) {
    const size_t end = std::min<size_t>(length, done + run.count * kUnitBytes);
    off_t offset = OffsetOf(run.first);
    while (done < end) {
      const ssize_t moved = transfer(done, end - done, offset);
      if (moved < 0 && errno == EINTR) {
        continue;
      }
      if (moved <= 0) {
        return false;
      }
      done += static_cast<size_t>(moved);
      offset += moved;
    }
  }
  return done == length;
}

}  // namespace

BlockStore::~BlockStore() {
  if (file.valid()) {
    (void)::unlink(path.c_str());  // gone with the folder already, perhaps
  }
}

bool BlockStore::Create() {
  file = OpenFile(path, O_RDWR | O_CREAT | O_EXCL, 0600);
  return file.valid();
}

bool BlockStore::Read(const UnitRuns& runs, void* buffer, size_t length) const {
  return TransferAll(runs, length, [&](size_t position, size_t bytes, off_t offset) {
    return ::pread(file.get(), static_cast<char*>(buffer) + position, bytes, offset);
  });
}

BlockStore::Outcome BlockStore::Write(const UnitRuns& runs, const void* data, size_t length) const {
  const bool done = TransferAll(runs, length, [&](size_t position, size_t bytes, off_t offset) {
    return ::pwrite(file.get(), static_cast<const char*>(data) + position, bytes, offset);
  });
  if (done) {
    return Outcome::kDone;
  }
  return errno == ENOSPC || errno == EDQUOT || errno == EFBIG ? Outcome::kFull : Outcome::kFailed;
}

void BlockStore::Discard(const UnitRuns& runs) const {
  for (const UnitRun& run : runs) {
    const off_t offset = OffsetOf(run.first);
    const off_t length = OffsetOf(run.count);
#if defined(__linux__)
    (void)::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length);
#elif defined(F_PUNCHHOLE)
    fpunchhole_t hole{0, 0, offset, length};
    (void)::fcntl(file.get(), F_PUNCHHOLE, &hole);
#else
    (void)offset, (void)length;
#endif
  }
}

}  // namespace tarn
