// Names: looking up, listing, making, removing and renaming.
#include <algorithm>
#include <cerrno>
#include <unordered_set>
#include <utility>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"
#include "platform/filesystem/names.h"

namespace tarn::fs {

namespace {

int CheckName(const std::string& name) {
  if (name.size() > kMaxNameBytes) {
    return ENAMETOOLONG;
  }
  return IsValidName(name) ? 0 : EILSEQ;
}

}  // namespace

int FileSystem::Lookup(Ino folder, const std::string& name, Stat& stat) {
  if (const int error = CheckName(name); error != 0) {
    return error == EILSEQ ? ENOENT : error;
  }
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    if (const auto file = drive.open_files.Find(folder, name); file && file->work) {
      drive.nodes.AddLookup(file->ino);
      stat = LocalStat(*file);
      return 0;
    }
    path = drive.nodes.PathOf(folder, name);
  }
  Listings::Answer answer;
  const auto begin = Clock::now();
  if (const int error = path ? finder.FindInFolder(*path, answer) : ESTALE; error != 0) {
    return error;
  }
  if (answer.known == Listings::Known::kAbsent) {
    stat.valid_for = remote.Count() > 0 ? answer.believable : Clock::duration::zero();
    return ENOENT;
  }
  const MutexLock guard(drive.lock);
  if (!drive.nodes.Exists(folder)) {
    return ESTALE;
  }
  if (const auto file = drive.open_files.Find(folder, name); file && file->work) {
    drive.nodes.AddLookup(file->ino);
    stat = LocalStat(*file);  // made while the remote was asked
    return 0;
  }
  const Ino ino = drive.nodes.Ensure(folder, name, answer.attributes.is_folder);
  drive.nodes.AddLookup(ino);
  stat = RemoteStat(ino, answer.attributes, answer.believable);
  if (answer.asked >= begin) {
    drive.nodes.KernelOf(ino).looked_up = Clock::now();
  }
  return 0;
}

void FileSystem::Forget(Ino ino, std::uint64_t lookups) {
  const MutexLock guard(drive.lock);
  drive.nodes.Forget(ino, lookups);
}

int FileSystem::MakeFolder(Ino folder, const std::string& name, Stat& stat) {
  if (const int error = CheckName(name); error != 0) {
    return error;
  }
  if (remote.Count() == 0) {
    return EROFS;
  }
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{folder, name}}, paths);
  if (!hold) {
    return ENOENT;
  }
  const AERROR error = remote.CreateFolder(paths[0]);
  if (error != SUCCESS) {
    events.Failed(FS_EVENT_CREATE_DIRECTORY, error, paths[0], paths[0]);
    const MutexLock guard(drive.lock);
    drive.listings.Forget(paths[0]);
    return ErrnoOf(error);
  }
  const Attributes made{.is_folder = true, .size = 0, .modified = Now(), .version = {}};
  const auto now = Clock::now();
  const MutexLock guard(drive.lock);
  drive.listings.SetPresent(paths[0], made, now);
  drive.listings.AddListing(drive.listings.Begin(), paths[0], {}, now);  // new, so it is empty
  const Ino ino = drive.nodes.Ensure(folder, name, true);
  drive.nodes.AddLookup(ino);
  stat = RemoteStat(ino, made, time_out);
  return 0;
}

int FileSystem::RemoveFile(Ino folder, const std::string& name) {
  sender.GiveUpAt(folder, name, true);
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{folder, name}}, paths);
  if (!hold) {
    return ENOENT;
  }
  std::shared_ptr<OpenFile> file;
  {
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(folder, name);
  }
  if (sender.HasCome(file, paths[0])) {
    if (const int error = file ? Preserve(file) : 0; error != 0) {
      return error;
    }
    const AERROR error = remote.DeleteFile(paths[0]);
    if (error != SUCCESS && !(file && ErrnoOf(error) == ENOENT)) {
      events.Failed(FS_EVENT_DELETE, error, paths[0], paths[0]);
      const MutexLock guard(drive.lock);
      drive.listings.Forget(paths[0]);
      if (file) {
        drive.open_files.DropIfUnused(file);
      }
      return ErrnoOf(error);
    }
  }
  {
    const MutexLock guard(drive.lock);
    drive.listings.SetAbsent(paths[0], Clock::now());
    if (const auto ino = drive.nodes.Find(folder, name); ino) {
      drive.nodes.Unlink(*ino);
    }
  }
  if (file) {
    unsent_files.Drop(*file);
    sender.Drop(file->ino);
    const MutexLock guard(drive.lock);
    drive.open_files.DropIfUnused(file);
  }
  return 0;
}

int FileSystem::RemoveFolder(Ino folder, const std::string& name) {
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{folder, name}}, paths);
  if (!hold) {
    return ENOENT;
  }
  {
    const MutexLock guard(drive.lock);
    if (HoldsUnsent(folder, name)) {
      return ENOTEMPTY;
    }
  }
  const AERROR error = remote.DeleteFolder(paths[0]);
  if (error != SUCCESS) {
    events.Failed(FS_EVENT_DELETE, error, paths[0], paths[0]);
    const MutexLock guard(drive.lock);
    drive.listings.Forget(paths[0]);
    return ErrnoOf(error);
  }
  const MutexLock guard(drive.lock);
  drive.listings.ForgetTree(paths[0]);
  drive.listings.SetAbsent(paths[0], Clock::now());
  if (const auto ino = drive.nodes.Find(folder, name); ino) {
    drive.nodes.Unlink(*ino);
  }
  return 0;
}

int FileSystem::Rename(Ino folder, const std::string& name, Ino new_folder,
                       const std::string& new_name, bool may_replace) {
  if (const int error = CheckName(new_name); error != 0) {
    return error;
  }
  sender.GiveUpAt(folder, name, false);
  sender.GiveUpAt(new_folder, new_name, true);
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{folder, name}, {new_folder, new_name}}, paths);
  if (!hold) {
    return ENOENT;
  }
  std::shared_ptr<OpenFile> source;
  std::shared_ptr<OpenFile> target;
  {
    const MutexLock guard(drive.lock);
    source = drive.open_files.Find(folder, name);
    target = drive.open_files.Find(new_folder, new_name);
    target = target == source ? nullptr : target;
    if (paths[0] != paths[1] && HoldsUnsent(new_folder, new_name)) {
      return ENOTEMPTY;
    }
  }
  if (const int error = may_replace ? 0 : CheckFree(paths[1], target != nullptr); error != 0) {
    return error;
  }
  if (const int error = target ? Preserve(target) : 0; error != 0) {
    return error;
  }
  const bool is_at_remote = sender.HasCome(source, paths[0]);
  const auto noted = is_at_remote ? unsent_files.BeginMove(InoOf(folder, name), paths, target.get())
                                  : std::nullopt;
  if (const int error = is_at_remote ? MoveAtRemote(paths[0], paths[1]) : 0; error != 0) {
    if (noted) {
      unsent_files.EndMove(*noted);
    }
    if (target) {
      const MutexLock guard(drive.lock);
      drive.open_files.DropIfUnused(target);
    }
    return error;
  }
  {
    const MutexLock guard(drive.lock);
    if (!is_at_remote) {
      TakePlaceOf(*source, target.get(), new_folder, new_name);
    }
    Moved(folder, name, new_folder, new_name, paths);
  }
  unsent_files.Moved(InoOf(new_folder, new_name), is_at_remote, target ? target->id : "");
  if (target) {
    unsent_files.Drop(*target);
    sender.Drop(target->ino);
    const MutexLock guard(drive.lock);
    drive.open_files.DropIfUnused(target);
  }
  if (noted) {
    unsent_files.EndMove(*noted);
  }
  return 0;
}

int FileSystem::CheckFree(const std::string& path, bool is_open) {
  Listings::Answer answer;
  if (const int error = finder.Find(path, true, answer); error != 0) {
    return error;
  }
  return is_open || answer.known == Listings::Known::kPresent ? EEXIST : 0;
}

int FileSystem::MoveAtRemote(const std::string& from, const std::string& to) {
  const AERROR error = remote.Move(from, to);
  if (error == SUCCESS) {
    return 0;
  }
  events.Failed(FolderOf(from) == FolderOf(to) ? FS_EVENT_RENAME : FS_EVENT_MOVE, error, to, from);
  const MutexLock guard(drive.lock);
  drive.listings.Forget(from);
  drive.listings.Forget(to);
  return error == NOT_SUPPORTED ? EXDEV : ErrnoOf(error);
}

// The source is at this side only; what the remote has under the new name is replaced when the
// content goes there.
void FileSystem::TakePlaceOf(OpenFile& source, const OpenFile* target, Ino new_folder,
                             const std::string& new_name) {
  if (target != nullptr) {
    source.at_remote = target->at_remote;
    source.remote = target->remote;
    return;
  }
  const auto path = drive.nodes.PathOf(new_folder, new_name);
  const auto there = path ? drive.listings.Find(*path, Clock::now()) : Listings::Answer{};
  source.at_remote = there.known == Listings::Known::kPresent ||
                     (there.known == Listings::Known::kNothing &&
                      drive.nodes.Find(new_folder, new_name).has_value());
  source.remote = there.attributes;
}

void FileSystem::Moved(Ino folder, const std::string& name, Ino new_folder,
                       const std::string& new_name, const std::vector<std::string>& paths) {
  const auto now = Clock::now();
  const Listings::Answer before = drive.listings.Find(paths[0], now);
  if (before.known != Listings::Known::kPresent || before.attributes.is_folder) {
    drive.listings.ForgetTree(paths[0]);
    drive.listings.ForgetTree(paths[1]);
  }
  drive.listings.SetAbsent(paths[0], now);
  if (before.known == Listings::Known::kPresent) {
    drive.listings.SetPresent(paths[1], before.attributes, before.asked);
  } else {
    drive.listings.Forget(paths[1]);
  }
  if (const auto ino = drive.nodes.Find(folder, name); ino) {
    drive.nodes.Move(*ino, new_folder, new_name);
  } else if (const auto target = drive.nodes.Find(new_folder, new_name); target) {
    drive.nodes.Unlink(*target);
  }
}

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
  const auto ino = drive.nodes.Find(folder, name);
  if (!ino || !drive.nodes.IsFolder(*ino)) {
    return false;
  }
  const auto unsent = drive.open_files.UnsentAt(*ino);
  return std::any_of(unsent.begin(), unsent.end(),
                     [](const auto& file) { return !file.first->at_remote; });
}

void FileSystem::AddUnsent(const std::string& folder, std::vector<Entry>& entries) const {
  std::unordered_set<std::string> known;
  for (const Entry& entry : entries) {
    known.insert(entry.name);
  }
  for (const auto& [ino, file] : drive.open_files.All()) {
    const auto path = file->at_remote ? std::nullopt : drive.nodes.PathOf(ino);
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
  const Ino ino = drive.nodes.Ensure(folder, entry.name, attributes.is_folder);
  drive.nodes.AddLookup(ino);
  const auto valid_for = std::max(Clock::duration::zero(), asked + time_out - Clock::now());
  stat = RemoteStat(ino, attributes, is_known ? known.believable : valid_for);
  return true;
}

}  // namespace tarn::fs
