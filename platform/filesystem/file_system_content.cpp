// Content: opening, reading, writing, closing.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

constexpr std::uint64_t kWhole = std::numeric_limits<std::uint64_t>::max();
// Of a file that is removed or replaced while somebody has it open: who does that does not wait for
// a film.
constexpr std::uint64_t kMostPreserved = std::uint64_t{16} << 20;
constexpr std::chrono::seconds kTimeToPreserve{2};

bool WantsToWrite(int flags) {
  return (flags & O_ACCMODE) != O_RDONLY;
}

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

FileSystem::Opened FileSystem::MakeHandle(const std::shared_ptr<OpenFile>& file, int flags) {
  ++file->handles;
  file->writers += WantsToWrite(flags) ? 1 : 0;
  return {.handle = handles.Add({.file = file,
                                 .may_read = (flags & O_ACCMODE) != O_WRONLY,
                                 .may_write = WantsToWrite(flags),
                                 .append = (flags & O_APPEND) != 0,
                                 .serial = file->serial}),
          .keep_cache = false};
}

std::optional<Handle> FileSystem::GetHandle(std::uint64_t handle) {
  const MutexLock guard(drive.lock);
  const Handle* const open = handles.Find(handle);
  return open != nullptr ? std::optional(*open) : std::nullopt;
}

int FileSystem::Create(Ino folder, const std::string& name, int flags, Stat& stat, Opened& opened,
                       mode_t permissions) {
  if (!IsValidName(name)) {
    return name.size() > kMaxNameBytes ? ENAMETOOLONG : EILSEQ;
  }
  if (remote.Count() == 0) {
    return EROFS;
  }
  int protocol = 0;
  if (const int error = FindProtocol(folder, protocol); error != 0) {
    return error;
  }
  std::shared_ptr<WorkFile> work;
  if (const int error = unsent_files.MakeWork(work); error != 0) {
    return error;
  }
  work->MarkDirty();
  const MutexLock guard(drive.lock);
  if (!drive.nodes.PathOf(folder, name)) {
    return ENOENT;
  }
  if (const auto known = drive.nodes.Find(folder, name); known) {
    if (const auto file = drive.open_files.Find(*known); file && file->work) {
      return EEXIST;
    }
    if (drive.open_files.HoldsUnsent(folder, name)) {
      return EISDIR;
    }
    drive.nodes.Unlink(*known);  // removed elsewhere
  }
  const Ino ino = drive.nodes.Ensure(folder, name, false);
  const auto file = drive.open_files.Ensure(ino);
  file->remote.protocol = protocol;
  file->work = std::move(work);
  file->created_with = permissions;
  drive.nodes.AddLookup(ino);
  opened = MakeHandle(file, flags);
  stat = LocalStat(*file);
  return 0;
}

int FileSystem::Open(Ino ino, int flags, Opened& opened) {
  {
    const MutexLock guard(drive.lock);
    if (drive.nodes.IsFolder(ino)) {
      return EISDIR;
    }
    if (const auto file = drive.open_files.Find(ino);
        file && file->work && (flags & O_TRUNC) == 0) {
      opened = MakeHandle(file, flags);
      opened.keep_cache = true;
      return 0;
    }
  }
  Attributes attributes;
  Readers::Beginning begun;
  const auto asked = Clock::now();
  const int error = readers.Find(ino, !WantsToWrite(flags), attributes, begun);
  const Clock::duration waited = Clock::now() - asked;
  std::shared_ptr<OpenFile> file;
  {
    const MutexLock guard(drive.lock);
    const auto known = drive.open_files.Find(ino);
    const bool is_local = known && (known->work || known->preparing);
    if (error != 0 && !is_local) {
      return error;
    }
    if (!is_local && (!drive.nodes.Exists(ino) || WasStoredSince(ino, attributes))) {
      return ESTALE;  // the kernel asks again
    }
    file = drive.open_files.Ensure(ino);
    if (!is_local) {
      Refresh(*file, attributes);
      Readers::TakeOver(begun, drive.nodes.ContentOf(ino), *file);
      file->at_remote = true;
    }
    opened = MakeHandle(file, flags);
    std::string& version = drive.nodes.KernelOf(ino).version;
    opened.keep_cache = is_local || version == attributes.version;
    version = is_local ? version : attributes.version;
  }
  ahead.Opened(*file, begun.reader != nullptr, waited);
  const int truncated = WantsToWrite(flags) && (flags & O_TRUNC) != 0 ? Truncate(file) : 0;
  if (truncated != 0) {
    Release(opened.handle);
  }
  return truncated;
}

// Whether an upload has ended while the remote was asked: the answer is from before it.
bool FileSystem::WasStoredSince(Ino ino, const Attributes& answer) const {
  const auto path = drive.nodes.PathOf(ino);
  const auto known = path ? drive.listings.Find(*path, Clock::now()) : Listings::Answer{};
  return known.known == Listings::Known::kPresent && known.attributes.version != answer.version;
}

// A file was opened, and this is what the remote has by now.
void FileSystem::Refresh(OpenFile& file, const Attributes& attributes) {
  const bool is_new = file.handles == 0;
  const bool has_changed =
      file.remote.version != attributes.version || (file.reader && file.reader->HasChanged());
  if (is_new || has_changed) {
    file.serial += is_new ? 0 : 1;
    file.is_fresh = is_new && drive.nodes.KernelOf(file.ino).version != attributes.version;
    file.DropReader();
  }
  file.remote = attributes;
}

int FileSystem::Truncate(const std::shared_ptr<OpenFile>& file) {
  std::shared_ptr<WorkFile> work;
  if (const int error = WorkFor(file, 0, work); error != 0) {
    return error;
  }
  return work->SetSize(0);
}

int FileSystem::WorkFor(const std::shared_ptr<OpenFile>& file, std::uint64_t keep,
                        std::shared_ptr<WorkFile>& work) {
  Attributes attributes;
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    while (file->preparing) {
      prepared.wait(drive.lock);
    }
    if (file->work) {
      work = file->work;
      return 0;
    }
    file->preparing = true;
    attributes = file->remote;
    path = drive.nodes.PathOf(file->ino);
  }
  int error = path || keep == 0 ? unsent_files.MakeWork(work) : ESTALE;
  if (error == 0 && keep > 0) {
    error = work->SetBase(BaseOf(file, keep));
  }
  const MutexLock guard(drive.lock);
  file->preparing = false;
  prepared.notify_all();
  if (error == 0) {
    work->SetModified(attributes.modified);
    file->work = work;
    if (work->IsComplete()) {
      file->DropReader();
    }
  }
  return error;
}

WorkFile::Base FileSystem::BaseOf(const std::shared_ptr<OpenFile>& file, std::uint64_t length) {
  return {.read =
              [self = weak_from_this(), of = std::weak_ptr(file)](
                  std::uint64_t offset, void* buffer, size_t wanted, size_t& received) {
                const auto files = self.lock();
                const auto open = of.lock();
                if (!files || !open) {
                  return ESTALE;
                }
                ++*open->progress;
                Bytes part;  // of the version that the file has now, which a move may have changed
                const int error = files->readers.Get(*open)->View(offset, wanted, part);
                std::copy_n(part.data, part.length, static_cast<char*>(buffer));
                received = part.length;
                return error;
              },
          .size = std::min(length, readers.Get(*file)->GetFile().size)};
}

int FileSystem::Preserve(const std::shared_ptr<OpenFile>& file) {
  {
    const MutexLock guard(drive.lock);
    if (file->handles == 0) {
      return 0;
    }
  }
  std::shared_ptr<WorkFile> work;
  int error = WorkFor(file, kWhole, work);
  error = error == 0 ? work->CompleteSoon(kMostPreserved, kTimeToPreserve) : error;
  return error == ENOENT || error == ESTALE ? 0 : error;  // nobody can have the rest any more
}

int FileSystem::Read(std::uint64_t handle, std::uint64_t offset, size_t length,
                     std::vector<Bytes>& parts) {
  const auto open = GetHandle(handle);
  if (!open) {
    return EBADF;
  }
  const auto find_work = [&](std::shared_ptr<WorkFile>& work) {
    const MutexLock guard(drive.lock);
    work = open->file->work;
    return open->serial == open->file->serial;
  };
  std::shared_ptr<WorkFile> work;
  if (!find_work(work)) {
    return EIO;  // changed elsewhere since it was opened; a new open sees the change
  }
  int error = 0;
  if (!work) {
    error = ReadParts(*readers.Get(*open->file), offset, length, parts);
    if (!find_work(work)) {
      return EIO;
    }
  }
  if (work) {  // perhaps made meanwhile, because the remote's content was about to go
    error = ReadWork(*work, offset, length, parts);
  }
  return error == ESTALE ? EIO : error;
}

int FileSystem::Write(std::uint64_t handle, std::uint64_t offset, const void* data, size_t length,
                      bool from_mapping, size_t& written) {
  written = 0;
  const auto open = GetHandle(handle);
  if (!open || !open->may_write) {
    return EBADF;
  }
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    if (open->serial != open->file->serial) {
      return EIO;
    }
    work = open->file->work;
  }
  if (!work) {
    if (const int error = WorkFor(open->file, kWhole, work); error != 0) {
      return error;
    }
  }
  return open->append && !from_mapping ? work->Append(data, length, written)
                                       : work->Write(offset, data, length, written);
}

int FileSystem::Flush(std::uint64_t handle) {
  const auto open = GetHandle(handle);
  if (!open) {
    return EBADF;
  }
  return open->may_write ? sender.Save(open->file) : 0;
}

int FileSystem::Sync(std::uint64_t handle) {
  const auto open = GetHandle(handle);
  if (!open) {
    return EBADF;
  }
  const int error = sender.Sync(open->file);
  return error == 0 || error == ENOSPC ? error : EIO;  // other errors say nothing of the content
}

// Pages of a mapping may come after the close. The kernel tells of the end of a file late, though:
// what somebody else has begun to write since is saved when that is closed.
bool FileSystem::HasNewsAtRelease(const OpenFile& file) const {
  const MutexLock guard(drive.lock);
  const bool is_last = file.writers == 1 && file.work && file.work->IsDirty();
  return is_last &&
         (!file.unsent.content || file.unsent.state.change != file.work->GetState().change);
}

void FileSystem::Release(std::uint64_t handle) {
  const auto open = GetHandle(handle);
  if (!open) {
    return;
  }
  if (open->may_write && HasNewsAtRelease(*open->file)) {
    (void)sender.Save(open->file);  // events tell of failure
  }
  CloseHandle(handle);
}

void FileSystem::CloseHandle(std::uint64_t handle) {
  std::optional<std::string> torn;
  {
    const MutexLock guard(drive.lock);
    const Handle* const known = handles.Find(handle);
    if (known == nullptr) {
      return;  // everything was closed meanwhile
    }
    const Handle open = *known;
    handles.Remove(handle);
    const auto& file = open.file;
    --file->handles;
    file->writers -= open.may_write ? 1 : 0;
    if (file->writers == 0 && file->is_torn) {  // it can never be whole; the close has told
      torn = drive.nodes.PathOf(file->ino);
      file->work.reset();
      file->is_torn = false;
    }
    drive.open_files.DropIfUnused(file);
  }
  if (torn) {
    events.Failed(FS_EVENT_CREATE_FILE, SHARING_VIOLATION, *torn, *torn);
  }
}

}  // namespace tarn::fs
