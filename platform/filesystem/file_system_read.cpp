// Reading: what the remote has, from the open to the bytes.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"

namespace tarn::fs {

namespace {

// A lookup and the open that it belongs to follow each other within this; then the open need not
// ask again.
constexpr std::chrono::milliseconds kSameCall{10};
// The first open of a file that was fetched ahead takes what was found then, for a short time: a
// program that goes through a folder of small files would wait for every one of them otherwise.
constexpr std::chrono::seconds kAheadTrust{1};
constexpr size_t kMaxRemembered = 4096;
constexpr size_t kSmallFileBytes = Reader::kBlockBytes;

}  // namespace

// The content of a small file is on its way while the remote is still asked whether it is what the
// listing says; one round trip instead of two.
std::shared_ptr<Reader> FileSystem::StartReading(Ino ino, Attributes& expected) {
  Listings::Answer listed;
  {
    const MutexLock guard(lock);
    const auto path = nodes.PathOf(ino);
    listed = path ? listings.Find(*path, Clock::now()) : listed;
    if (listed.known != Listings::Known::kPresent || listed.attributes.is_folder ||
        listed.attributes.size == 0 || listed.attributes.size > kSmallFileBytes ||
        FindOpenFile(ino) || kernel[ino].version == listed.attributes.version) {
      return nullptr;
    }
  }
  expected = listed.attributes;
  auto reader = MakeReader(ino, expected, true);
  reader->Begin();
  return reader;
}

int FileSystem::FindForOpen(Ino ino, Attributes& attributes) {
  std::optional<std::string> path;
  bool just_looked_up = false;
  {
    const MutexLock guard(lock);
    path = nodes.PathOf(ino);
    const auto looked_up = std::exchange(kernel[ino].looked_up, Clock::time_point{});
    const auto ahead = std::exchange(kernel[ino].fetched_ahead, Clock::time_point{});
    const auto now = Clock::now();
    just_looked_up = looked_up + kSameCall > now || ahead + kAheadTrust > now;
  }
  Listings::Answer answer;
  if (const int error = path ? Find(*path, !just_looked_up, answer) : ESTALE; error != 0) {
    return error;
  }
  if (answer.known == Listings::Known::kAbsent) {
    return ESTALE;  // the kernel looks the name up again
  }
  attributes = answer.attributes;
  return attributes.is_folder ? ESTALE : 0;
}

// Asks again when the file was renamed meanwhile, because something else may be in its old place.
struct FileSystem::RemoteContent : ReadSource {
  RemoteContent(std::shared_ptr<FileSystem> of, Ino read, Attributes as_opened)
      : files(std::move(of)), ino(read), attributes(std::move(as_opened)) {}

  int Read(std::uint64_t offset, void* buffer, size_t length, size_t& received) override {
    return WhereItIs([&](const std::string& path) {
      const AERROR error =
          files->remote.Read(attributes.protocol, path, offset, buffer, length, received);
      files->events.Failed(FS_EVENT_READ, error, path, path);
      return ErrnoOf(error) == ENOENT ? ESTALE : ErrnoOf(error);
    });
  }

  int Confirm() override {
    return WhereItIs([&](const std::string& path) {
      Listings::Answer now;
      if (const int error = files->Find(path, true, now); error != 0) {
        return error;
      }
      const bool is_the_same = now.known == Listings::Known::kPresent &&
                               now.attributes.version == attributes.version &&
                               now.attributes.size == attributes.size;
      return is_the_same ? 0 : ESTALE;
    });
  }

  // ESTALE when there is a work file by now: what the remote has under the name may be another's.
  template <typename Ask>
  int WhereItIs(Ask ask) {
    std::optional<std::string> path = Path();
    while (path) {
      const int error = ask(*path);
      std::optional<std::string> path_now = Path();
      if (path_now == path) {
        return error;
      }
      path = std::move(path_now);
    }
    return ESTALE;
  }

  std::optional<std::string> Path() {
    const MutexLock guard(files->lock);
    const auto file = files->FindOpenFile(ino);
    return file && file->work ? std::nullopt : files->nodes.PathOf(ino);
  }

  const std::shared_ptr<FileSystem> files;
  const Ino ino;
  const Attributes attributes;
};

std::shared_ptr<Reader> FileSystem::MakeReader(Ino ino, const Attributes& attributes,
                                               bool is_fresh) {
  return std::make_shared<Reader>(
      std::make_shared<RemoteContent>(shared_from_this(), ino, attributes),
      Reader::File{.key = std::to_string(ino),
                   .version = attributes.version,
                   .size = attributes.size,
                   .is_fresh = is_fresh});
}

std::shared_ptr<Reader> FileSystem::ReaderFor(OpenFile& file) {
  const MutexLock guard(lock);
  if (!file.reader) {
    file.reader = MakeReader(file.ino, file.remote, file.is_fresh);
  }
  return file.reader;
}

void FileSystem::DropReader(OpenFile& file) {
  if (file.reader) {
    file.reader->Stop();
    file.reader.reset();
  }
}

void FileSystem::Remember(Ino ino) {
  const auto known = std::find(remembered.begin(), remembered.end(), ino);
  if (known != remembered.end()) {
    remembered.splice(remembered.begin(), remembered, known);
    return;
  }
  nodes.Pin(ino);
  remembered.push_front(ino);
  if (remembered.size() > kMaxRemembered) {
    const Ino oldest = remembered.back();
    remembered.pop_back();
    nodes.Unpin(oldest);
    if (!nodes.Exists(oldest)) {
      kernel.erase(oldest);
    }
  }
}

int FileSystem::Read(std::uint64_t handle, std::uint64_t offset, void* buffer, size_t length,
                     size_t& received) {
  const auto open = GetHandle(handle);
  if (!open) {
    return EBADF;
  }
  const auto find_work = [&](std::shared_ptr<WorkFile>& work) {
    const MutexLock guard(lock);
    work = open->file->work;
    return open->serial == open->file->serial;
  };
  std::shared_ptr<WorkFile> work;
  if (!find_work(work)) {
    return EIO;  // changed elsewhere since it was opened; a new open sees the change
  }
  int error = 0;
  if (!work) {
    error = ReaderFor(*open->file)->Read(offset, buffer, length, received);
    if (!find_work(work)) {
      return EIO;
    }
  }
  if (work) {  // perhaps made meanwhile, because the remote's content was about to go
    error = work->Read(offset, buffer, length, received);
  }
  return error == ESTALE ? EIO : error;
}

}  // namespace tarn::fs
