#include "platform/filesystem/work_file.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>
#include <vector>

namespace tarn::fs {

namespace {

constexpr std::uint64_t kFetchBytes = std::uint64_t{1} << 20;

}  // namespace

FS_TIME Now() {
  timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  return {now.tv_sec, static_cast<int>(now.tv_nsec)};
}

WorkFile::WorkFile(std::shared_ptr<Content> empty) : content(std::move(empty)) {
  state.modified = Now();
}

WorkFile::WorkFile(std::shared_ptr<Content> unsent, std::uint64_t size, const FS_TIME& modified)
    : content(std::move(unsent)), state{1, size, modified} {}

std::shared_ptr<Content> WorkFile::GetContent() const {
  const MutexLock guard(lock);
  return content;
}

int WorkFile::SetBase(Base remote_file) {
  if (const int error = GetContent()->SetSize(remote_file.size); error != 0) {
    return error;
  }
  const MutexLock guard(lock);
  state.size = remote_file.size;
  missing = Ranges(remote_file.size);
  base = std::make_shared<const Base>(std::move(remote_file));
  return 0;
}

bool WorkFile::IsComplete() const {
  const MutexLock guard(lock);
  return missing.IsEmpty();
}

int WorkFile::CompleteSoon(std::uint64_t at_most_bytes, Clock::duration time) {
  {
    const MutexLock guard(lock);
    if (missing.CountBytes() > at_most_bytes) {
      return 0;
    }
  }
  return Fetch({0, kMaxSize}, Clock::now() + time);
}

int WorkFile::Fetch(const Range& needed, Clock::time_point until) {
  std::vector<char> buffer;
  while (Clock::now() < until) {
    std::shared_ptr<const Base> source;
    Range range;
    {
      const MutexLock guard(lock);
      const auto first = missing.FirstIn(needed);
      if (!first) {
        return 0;
      }
      range = {first->begin, std::min(first->end, first->begin + kFetchBytes)};
      source = base;
    }
    buffer.resize(range.end - range.begin);
    size_t received = 0;
    if (const int error = source->read(range.begin, buffer.data(), buffer.size(), received);
        error != 0 || received == 0) {
      return error == 0 ? EIO : error;
    }
    range.end = range.begin + received;
    if (const int error = Fill(range, buffer.data()); error != 0) {
      return error;
    }
  }
  return 0;
}

int WorkFile::Fill(const Range& range, const char* data) {
  const MutexLock one_at_a_time(changing);
  for (;;) {
    std::optional<Range> part;
    {
      const MutexLock guard(lock);
      part = missing.FirstIn(range);
    }
    if (!part) {
      return 0;
    }
    size_t written = 0;
    if (const int error = GetContent()->Write(part->begin, data + (part->begin - range.begin),
                                              part->end - part->begin, written);
        error != 0) {
      return error;
    }
    std::shared_ptr<const Base> done;
    const MutexLock guard(lock);
    done = NotMissing(*part);
  }
}

std::shared_ptr<const WorkFile::Base> WorkFile::NotMissing(const Range& range) {
  missing.Take(range);
  return missing.IsEmpty() ? std::exchange(base, nullptr) : nullptr;
}

int WorkFile::Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) {
  received = 0;
  std::uint64_t size = 0;
  {
    const MutexLock guard(lock);
    size = state.size;
  }
  const size_t wanted = offset >= size ? 0 : std::min<std::uint64_t>(length, size - offset);
  if (const int error = Fetch({offset, offset + wanted}, Clock::time_point::max()); error != 0) {
    return error;
  }
  return GetContent()->Read(offset, buffer, wanted, received);  // less when it is cut meanwhile
}

// What a snapshot has is copied before it is changed.
int WorkFile::MakeOwn(std::uint64_t keep_bytes) {
  std::shared_ptr<Content> shared;
  {
    const MutexLock guard(lock);
    if (snapshots.expired()) {
      return 0;
    }
    shared = content;
    keep_bytes = std::min(keep_bytes, state.size);
  }
  std::shared_ptr<Content> own;
  if (const int error = shared->Copy(keep_bytes, own); error != 0) {
    return error;
  }
  const MutexLock guard(lock);
  content = std::move(own);
  snapshots.reset();
  return 0;
}

int WorkFile::WriteAt(std::uint64_t offset, const void* data, size_t length, size_t& written) {
  written = 0;
  if (offset > kMaxSize || length > kMaxSize - offset) {
    return EFBIG;
  }
  if (const int error = MakeOwn(kMaxSize); error != 0) {
    return error;
  }
  const int error = GetContent()->Write(offset, data, length, written);
  if (written == 0) {
    return error;
  }
  std::shared_ptr<const Base> done;
  const MutexLock guard(lock);
  done = NotMissing({offset, offset + written});
  state.size = std::max(state.size, offset + written);
  Changed();
  return 0;
}

int WorkFile::Write(std::uint64_t offset, const void* data, size_t length, size_t& written) {
  const MutexLock one_at_a_time(changing);
  return WriteAt(offset, data, length, written);
}

int WorkFile::Append(const void* data, size_t length, size_t& written) {
  const MutexLock one_at_a_time(changing);
  return WriteAt(GetSize(), data, length, written);
}

int WorkFile::SetSize(std::uint64_t size) {
  if (size > kMaxSize) {
    return EFBIG;
  }
  const MutexLock one_at_a_time(changing);
  if (const int error = MakeOwn(size); error != 0) {
    return error;
  }
  if (const int error = GetContent()->SetSize(size); error != 0) {
    return error;
  }
  std::shared_ptr<const Base> done;
  const MutexLock guard(lock);
  done = NotMissing({size, kMaxSize});
  state.size = size;
  Changed();
  return 0;
}

std::uint64_t WorkFile::GetSize() const {
  const MutexLock guard(lock);
  return state.size;
}

void WorkFile::SetModified(const FS_TIME& time) {
  const MutexLock guard(lock);
  state.modified = time;
}

WorkFile::State WorkFile::GetState() const {
  const MutexLock guard(lock);
  return state;
}

WorkFile::Snapshot WorkFile::TakeSnapshot() {
  const MutexLock not_in_a_change(changing);
  const MutexLock guard(lock);
  auto holders = snapshots.lock();
  if (!holders) {
    holders = std::make_shared<std::shared_ptr<Content>>(content);
    snapshots = holders;
  }
  return {.content = std::shared_ptr<Content>(holders, content.get()),
          .state = state,
          .sent_bytes = std::make_shared<std::atomic<std::uint64_t>>(0)};
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

void WorkFile::LetGo() {
  GetContent()->LetGo();
}

void WorkFile::Changed() {
  ++state.change;
  state.modified = Now();
}

}  // namespace tarn::fs
