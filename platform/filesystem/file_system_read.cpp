// Reading: what the remote has, from the open to the bytes.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"

namespace tarn::fs {

namespace {

// A lookup and the open that it belongs to follow each other within this; then the open need not
// ask again.
constexpr std::chrono::milliseconds kSameCall{10};
// The first open of a file that was fetched ahead takes what was found then or since, for a short
// time: a program that goes through small files would wait for every one of them otherwise.
constexpr std::chrono::seconds kAheadTrust{1};

}  // namespace

// The beginning of a file is asked for together with the open: one round trip instead of two. Where
// all of it comes, known to be the version that the listing tells of, that answers for the open
// too; else the remote is asked meanwhile.
FileSystem::Beginning FileSystem::StartReading(Ino ino) {
  const auto asked = Clock::now();
  std::optional<std::string> path;
  Listings::Answer listed;
  Listings::Ticket ticket = 0;
  {
    const MutexLock guard(lock);
    path = nodes.PathOf(ino);
    listed = path ? listings.Find(*path, asked) : listed;
    ticket = listings.Begin();
    if (listed.known != Listings::Known::kPresent || listed.attributes.is_folder ||
        listed.attributes.size == 0 || FindOpenFile(ino) ||
        nodes.KernelOf(ino).version == listed.attributes.version) {
      return {};
    }
  }
  Beginning begun{MakeReader(ino, listed.attributes, true), listed.attributes};
  if (listed.attributes.size > SmallFiles::kMaxFileBytes ||
      !remote.ReadsVersions(listed.attributes.protocol)) {
    begun.reader->Begin();
  } else if (begun.reader->FetchBeginning()) {
    const MutexLock guard(lock);
    begun.is_confirmed = listings.Add(ticket, *path, &begun.expected, asked);
  }
  return begun;
}

void FileSystem::Use(const Beginning& begun, OpenFile& file) {
  if (!begun.reader) {
    return;
  }
  if (!file.reader && !begun.reader->HasChanged() &&
      file.remote.version == begun.expected.version && file.remote.size == begun.expected.size &&
      file.remote.protocol == begun.expected.protocol) {
    file.reader = begun.reader;
  } else {
    begun.reader->Stop();
  }
}

// Whether what is known of the file holds for an open of this moment.
bool FileSystem::TrustsForOpen(Ino ino) {
  const auto now = Clock::now();
  const MutexLock guard(lock);
  if (!nodes.Exists(ino)) {
    return false;
  }
  KernelState& known = nodes.KernelOf(ino);
  const auto looked_up = std::exchange(known.looked_up, Clock::time_point{});
  if (looked_up + kSameCall > now) {
    return true;
  }
  const auto path = std::exchange(known.fetched_ahead, false) ? nodes.PathOf(ino) : std::nullopt;
  const auto answer = path ? listings.Find(*path, now) : Listings::Answer{};
  return answer.known == Listings::Known::kPresent && answer.asked + kAheadTrust > now;
}

int FileSystem::FindForOpen(Ino ino, int flags, Attributes& attributes, Beginning& begun) {
  const bool trusts = TrustsForOpen(ino);
  if (!trusts && (flags & O_ACCMODE) == O_RDONLY) {
    begun = StartReading(ino);
  }
  if (begun.is_confirmed) {
    attributes = begun.expected;
    return 0;
  }
  std::optional<std::string> path;
  {
    const MutexLock guard(lock);
    path = nodes.PathOf(ino);
  }
  Listings::Answer answer;
  if (const int error = path ? Find(*path, !trusts, answer) : ESTALE; error != 0) {
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
      : files(std::move(of)),
        ino(read),
        attributes(std::move(as_opened)),
        reads_version(files->remote.ReadsVersions(attributes.protocol)) {}

  bool ReadsOneVersion() const override { return reads_version; }

  const Line& GetLine() const override { return files->remote.GetLine(); }

  int Read(std::uint64_t offset, const std::shared_ptr<Buffer>& buffer, size_t& received) override {
    return WhereItIs([&](const std::string& path) {
      const AERROR error =
          reads_version ? files->remote.ReadVersion(attributes, path, offset, buffer, received)
                        : files->remote.Read(attributes.protocol, path, offset, buffer, received);
      if (ErrnoOf(error) == ENOENT || (reads_version && error == SHARING_VIOLATION)) {
        return ESTALE;
      }
      files->events.Failed(FS_EVENT_READ, error, path, path);
      return ErrnoOf(error);
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

  // ESTALE when there is a whole work file by now: what the remote has under the name may be
  // another's.
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
    const bool is_needed = !file || !file->work || !file->work->IsComplete();
    return is_needed ? files->nodes.PathOf(ino) : std::nullopt;
  }

  const std::shared_ptr<FileSystem> files;
  const Ino ino;
  const Attributes attributes;
  const bool reads_version;
};

namespace {

int ReadParts(Reader& reader, std::uint64_t offset, size_t length, std::vector<Bytes>& parts) {
  parts.clear();
  for (size_t received = 0; received < length; received += parts.back().length) {
    Bytes part;
    const int error = reader.View(offset + received, length - received, part);
    if (error != 0 || part.length == 0) {
      return error;
    }
    parts.push_back(std::move(part));
  }
  return 0;
}

int ReadWork(WorkFile& work, std::uint64_t offset, size_t length, std::vector<Bytes>& parts) {
  const auto buffer = Buffer::Make(length);
  size_t received = 0;
  const int error = buffer ? work.Read(offset, buffer->data(), length, received) : ENOMEM;
  parts.assign(1, Bytes{buffer, buffer ? buffer->data() : nullptr, received});
  return error;
}

}  // namespace

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

int FileSystem::Read(std::uint64_t handle, std::uint64_t offset, size_t length,
                     std::vector<Bytes>& parts) {
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
    error = ReadParts(*ReaderFor(*open->file), offset, length, parts);
    if (!find_work(work)) {
      return EIO;
    }
  }
  if (work) {  // perhaps made meanwhile, because the remote's content was about to go
    error = ReadWork(*work, offset, length, parts);
  }
  return error == ESTALE ? EIO : error;
}

}  // namespace tarn::fs
