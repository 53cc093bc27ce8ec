// Folders: what is in them, as far as the remote and this side know.
#include <algorithm>
#include <cerrno>
#include <unordered_set>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

int FileSystem::ReadFolder(Ino folder, FolderContent& content) {
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(folder);
  }
  if (!path) {
    return ENOENT;
  }
  // What is sent while the remote is asked may be in neither of the two.
  std::vector<Entry> unsent;
  {
    const MutexLock guard(drive.lock);
    AddUnsent(*path, unsent);
  }
  if (const AERROR error = finder.GetListing(*path, content); error != SUCCESS) {
    events.Failed(FS_EVENT_READDIR, error, *path, *path);
    return ErrnoOf(error);
  }
  ahead.Listed(*path, content.entries);
  const MutexLock guard(drive.lock);
  std::unordered_set<std::string> names;
  for (const Entry& entry : content.entries) {
    names.insert(entry.name);
  }
  for (const Entry& entry : unsent) {
    const auto known = drive.listings.Find(JoinPath(*path, entry.name), Clock::now());
    if (known.known == Listings::Known::kPresent && names.insert(entry.name).second) {
      content.entries.push_back({entry.name, known.attributes});
    }
  }
  AddUnsent(*path, content.entries);
  return 0;
}

std::uint64_t FileSystem::OpenFolder(Ino folder) {
  const MutexLock guard(drive.lock);
  return open_folders.Add({folder, nullptr});
}

int FileSystem::GetOpenFolder(std::uint64_t handle, bool anew,
                              std::shared_ptr<const FolderContent>& content) {
  Ino ino = 0;
  {
    const MutexLock guard(drive.lock);
    const OpenedFolder* const folder = open_folders.Find(handle);
    if (folder == nullptr) {
      return EBADF;
    }
    content = folder->content;
    ino = folder->ino;
  }
  if (content && !anew) {
    return 0;
  }
  const auto read = std::make_shared<FolderContent>();
  if (const int error = ReadFolder(ino, *read); error != 0) {
    return error;
  }
  content = read;
  const MutexLock guard(drive.lock);
  if (OpenedFolder* const folder = open_folders.Find(handle); folder != nullptr) {
    folder->content = content;
  }
  return 0;
}

void FileSystem::CloseFolder(std::uint64_t handle) {
  const MutexLock guard(drive.lock);
  open_folders.Remove(handle);
}

Ino FileSystem::InoOf(Ino folder, const std::string& name) const {
  const MutexLock guard(drive.lock);
  return drive.nodes.Find(folder, name).value_or(0);
}

bool FileSystem::HoldsUnsent(Ino folder, const std::string& name) const {
  const MutexLock guard(drive.lock);
  return drive.open_files.HoldsUnsent(folder, name);
}

void FileSystem::AddUnsent(const std::string& folder, std::vector<Entry>& entries) const {
  std::unordered_set<std::string> known;
  for (const Entry& entry : entries) {
    known.insert(entry.name);
  }
  for (const auto& [ino, file] : drive.open_files.All()) {
    const bool is_unsent = file->work && file->work->IsDirty();
    const auto path = is_unsent ? drive.nodes.PathOf(ino) : std::nullopt;
    if (path && FolderOf(*path) == folder && known.insert(std::string(NameOf(*path))).second) {
      entries.push_back({std::string(NameOf(*path)), {}});
    }
  }
}

bool FileSystem::LookUpEntry(Ino folder, const Entry& entry, Clock::time_point asked, Stat& stat) {
  const MutexLock guard(drive.lock);
  const auto path = drive.nodes.PathOf(folder, entry.name);
  const auto unsent = drive.open_files.Find(folder, entry.name);
  const bool is_local = unsent && unsent->work;
  const auto known = path ? drive.listings.Find(*path, Clock::now()) : Listings::Answer{};
  if (!path || (known.known == Listings::Known::kAbsent && !is_local)) {
    return false;
  }
  if (is_local) {  // whatever the remote has there by now
    drive.nodes.AddLookup(unsent->ino);
    stat = LocalStat(*unsent);
    return true;
  }
  const bool is_known = known.known == Listings::Known::kPresent;  // perhaps sent since
  const Attributes& attributes = is_known ? known.attributes : entry.attributes;
  if (!attributes.is_folder && LookUpKept(folder, entry.name, stat)) {
    return true;
  }
  const Ino ino = drive.nodes.Ensure(folder, entry.name, attributes.is_folder);
  drive.nodes.AddLookup(ino);
  const auto valid_for = std::max(Clock::duration::zero(), asked + time_out - Clock::now());
  stat = RemoteStat(ino, attributes, is_known ? known.believable : valid_for);
  return true;
}

}  // namespace tarn::fs
