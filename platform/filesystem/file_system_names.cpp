// Names: looking up, making, removing and renaming.
#include <cerrno>

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
  if (!answer.attributes.is_folder && LookUpKept(folder, name, stat)) {
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

bool FileSystem::LookUpKept(Ino folder, const std::string& name, Stat& stat) {
  if (!drive.open_files.HoldsUnsent(folder, name)) {
    return false;
  }
  stat = {.ino = *drive.nodes.Find(folder, name), .modified = mounted_at, .valid_for = time_out};
  drive.nodes.AddLookup(stat.ino);
  return true;
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
  const auto hold = drive.HoldPlaces({{{folder, name}}}, paths);
  if (!hold) {
    return ENOENT;
  }
  {
    const MutexLock guard(drive.lock);
    if (const auto file = drive.open_files.Find(folder, name); file && file->work) {
      return EEXIST;  // taken over late, so that the kernel does not know of it yet
    }
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

// While the remote may lose a file, those who have it open keep what of it is on this machine.
class FileSystem::Parting {
 public:
  Parting(FileSystem& of, std::shared_ptr<OpenFile> losing) : files(of), file(std::move(losing)) {
    Mark(true);
  }
  ~Parting() { Mark(false); }
  Parting(const Parting&) = delete;
  Parting& operator=(const Parting&) = delete;

 private:
  void Mark(bool is_going) {
    if (file) {
      const MutexLock guard(files.drive.lock);
      file->is_going = is_going;
      if (!is_going) {
        files.drive.open_files.DropIfUnused(file);
      }
    }
  }

  FileSystem& files;
  const std::shared_ptr<OpenFile> file;
};

int FileSystem::RemoveFile(Ino folder, const std::string& name) {
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{{folder, name}, Haste::kAtOnce}}, paths);
  if (!hold) {
    return ENOENT;
  }
  std::shared_ptr<OpenFile> file;
  {
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(folder, name);
  }
  const Parting parting(*this, file);
  if (const int error = sender.HasCome(file, paths[0]) ? DeleteAtRemote(file, paths[0]) : 0;
      error != 0) {
    return error;
  }
  {
    const MutexLock guard(drive.lock);
    drive.listings.SetAbsent(paths[0], Clock::now());
    if (const auto ino = drive.nodes.Find(folder, name); ino) {
      drive.nodes.Unlink(*ino);
    }
  }
  if (file) {
    DropUnsent(file);
  }
  return 0;
}

int FileSystem::DeleteAtRemote(const std::shared_ptr<OpenFile>& file, const std::string& path) {
  if (const int error = file ? Preserve(file) : 0; error != 0) {
    return error;
  }
  const AERROR error = remote.DeleteFile(path);
  if (error == SUCCESS || (file && ErrnoOf(error) == ENOENT)) {
    return 0;
  }
  events.Failed(FS_EVENT_DELETE, error, path, path);
  const MutexLock guard(drive.lock);
  drive.listings.Forget(path);
  return ErrnoOf(error);
}

void FileSystem::DropUnsent(const std::shared_ptr<OpenFile>& file) {
  unsent_files.Drop(*file);
  sender.Drop(file->ino);
  const MutexLock guard(drive.lock);
  drive.open_files.DropIfUnused(file);
}

int FileSystem::RemoveFolder(Ino folder, const std::string& name) {
  if (HoldsUnsent(folder, name)) {
    return ENOTEMPTY;  // at once: the place is not to be had while one of them is being sent
  }
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{{folder, name}}}, paths);
  if (!hold) {
    return ENOENT;
  }
  if (HoldsUnsent(folder, name)) {
    return ENOTEMPTY;
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
  const bool is_another = folder != new_folder || name != new_name;
  if (is_another && HoldsUnsent(new_folder, new_name)) {
    return ENOTEMPTY;  // as in RemoveFolder
  }
  Renaming renaming{.from = {folder, name}, .to = {new_folder, new_name}};
  auto& [from, to, paths, source, target] = renaming;
  const auto hold = drive.HoldPlaces({{from, Haste::kUnlessQuick}, {to, Haste::kAtOnce}}, paths);
  if (!hold) {
    return ENOENT;
  }
  if (is_another && HoldsUnsent(new_folder, new_name)) {
    return ENOTEMPTY;
  }
  {
    const MutexLock guard(drive.lock);
    source = drive.open_files.Find(folder, name);
    target = is_another ? drive.open_files.Find(new_folder, new_name) : nullptr;
  }
  const Parting parting(*this, target);
  if (const int error = may_replace ? 0 : CheckFree(paths[1], target != nullptr); error != 0) {
    return error;
  }
  if (const int error = target ? Preserve(target) : 0; error != 0) {
    return error;
  }
  return sender.HasCome(source, paths[0]) ? RenameAtRemote(renaming) : RenameHere(renaming);
}

int FileSystem::RenameAtRemote(const Renaming& renaming) {
  const auto& [from, to, paths, source, target] = renaming;
  // A move may make another version of the same content; who has the file open reads on.
  const auto as_opened = source ? finder.FindAsOpened(*source, paths[0]) : std::nullopt;
  std::optional<Journal::Move> noted;
  int error = unsent_files.BeginMove(InoOf(from.ino, from.name), paths, target.get(), noted);
  error = error == 0 ? MoveAtRemote(paths[0], paths[1]) : error;
  if (error != 0) {
    (void)unsent_files.EndMove(noted);
    return error;
  }
  {
    const MutexLock guard(drive.lock);
    Moved(renaming);
  }
  if (as_opened) {
    (void)finder.TakeNewVersion(*source, paths[1], as_opened->modified);
  }
  auto unwritten = unsent_files.Moved(InoOf(to.ino, to.name), IdOf(target.get()));
  if (target) {
    DropUnsent(target);
  }
  if (!unsent_files.EndMove(noted, std::move(unwritten))) {
    later.Start();
  }
  return 0;
}

int FileSystem::RenameHere(const Renaming& renaming) {
  int protocol = 0;
  if (const int error = FindProtocol(renaming.to.ino, protocol); error != 0) {
    return error;
  }
  OpenFile& source = *renaming.source;
  bool was_at_remote = false;
  Attributes before;
  {
    const MutexLock guard(drive.lock);
    was_at_remote = source.at_remote;
    before = source.remote;
    TakePlaceOf(source, renaming.target.get(), renaming.to, protocol);
  }
  const std::string superseded_id = IdOf(renaming.target.get());
  const int error = unsent_files.Move(source, renaming.paths[1], superseded_id, [&] {
    const MutexLock guard(drive.lock);
    Moved(renaming);
  });
  if (error != 0) {
    const MutexLock guard(drive.lock);
    source.at_remote = was_at_remote;
    source.remote = before;
  } else if (renaming.target) {
    DropUnsent(renaming.target);
  }
  return error;
}

std::string FileSystem::IdOf(const OpenFile* file) const {
  const MutexLock guard(drive.lock);
  return file != nullptr ? file->id : "";
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
void FileSystem::TakePlaceOf(OpenFile& source, const OpenFile* target, const Place& place,
                             int protocol) {
  if (target != nullptr) {
    source.at_remote = target->at_remote;
    source.remote = target->remote;
    return;
  }
  const auto path = drive.nodes.PathOf(place.ino, place.name);
  const auto there = path ? drive.listings.Find(*path, Clock::now()) : Listings::Answer{};
  source.at_remote = there.known == Listings::Known::kPresent ||
                     (there.known == Listings::Known::kNothing &&
                      drive.nodes.Find(place.ino, place.name).has_value());
  source.remote = there.attributes;
  if (there.known != Listings::Known::kPresent) {
    source.remote.protocol = protocol;
  }
}

int FileSystem::FindProtocol(Ino folder, int& protocol) {
  protocol = 0;
  if (remote.Count() == 1 || folder == kRootIno) {
    return 0;
  }
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    path = drive.nodes.PathOf(folder);
  }
  Listings::Answer answer;
  const int error = path ? finder.Find(*path, false, answer) : ENOENT;
  protocol = answer.attributes.protocol;
  return error;
}

void FileSystem::Moved(const Renaming& renaming) {
  const auto& [from, to, paths, source, target] = renaming;
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
  if (const auto ino = drive.nodes.Find(from.ino, from.name); ino) {
    drive.nodes.Move(*ino, to.ino, to.name);
    KernelState& known = drive.nodes.KernelOf(*ino);
    known.looked_up = {};  // what was found under the old name may be of no use now
    known.fetched_ahead = false;
  } else if (const auto replaced = drive.nodes.Find(to.ino, to.name); replaced) {
    drive.nodes.Unlink(*replaced);
  }
}

}  // namespace tarn::fs
