// Attributes: stat and setattr.
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/filesystem/errors.h"
#include "platform/filesystem/file_system.h"

namespace tarn::fs {

int FileSystem::GetAttributes(Ino ino, Stat& stat) {
  if (ino == kRootIno) {
    stat = {.modified = mounted_at, .valid_for = time_out};
    return 0;
  }
  std::optional<std::string> path;
  {
    const MutexLock guard(drive.lock);
    if (const auto file = drive.open_files.Find(ino); file && file->work) {
      stat = LocalStat(*file);
      return 0;
    }
    path = drive.nodes.PathOf(ino);
    if (!path && drive.nodes.IsFolder(ino)) {  // removed, but somebody's current folder
      stat = {.ino = ino, .modified = mounted_at, .linked = false, .valid_for = time_out};
      return 0;
    }
  }
  Listings::Answer answer;
  if (const int error = path ? finder.Find(*path, false, answer) : ENOENT; error != 0) {
    return error;
  }
  const MutexLock guard(drive.lock);
  if (const auto file = drive.open_files.Find(ino); file && file->work) {
    stat = LocalStat(*file);  // made while the remote was asked
    return 0;
  }
  const bool is_folder = drive.nodes.IsFolder(ino);
  if (answer.known == Listings::Known::kAbsent || answer.attributes.is_folder != is_folder) {
    if (is_folder && !drive.open_files.UnsentAt(ino).empty()) {
      stat = {.ino = ino, .modified = mounted_at, .valid_for = time_out};
      return 0;
    }
    return ESTALE;  // the kernel looks the name up again
  }
  stat = RemoteStat(ino, answer.attributes, answer.believable);
  return 0;
}

int FileSystem::SetAttributes(Ino ino, const AttributeChange& change, Stat& stat) {
  if (const int error = GetAttributes(ino, stat); error != 0) {
    return error;
  }
  if ((change.permissions && !MayHave(*change.permissions & 07777, stat)) ||
      (change.user && *change.user != ::geteuid()) ||
      (change.group && *change.group != ::getegid())) {
    return EPERM;
  }
  if (!change.size && !change.modified) {
    return 0;
  }
  if (const int error = change.size ? SetSize(ino, *change.size) : 0; error != 0) {
    return error;
  }
  if (const int error = change.modified ? SetModified(ino, *change.modified) : 0; error != 0) {
    return error;
  }
  return GetAttributes(ino, stat);
}

// Programs that copy give a new file the permissions that they have created it with.
bool FileSystem::MayHave(mode_t permissions, const Stat& stat) const {
  const MutexLock guard(drive.lock);
  const auto file = drive.open_files.Find(stat.ino);
  return permissions == stat.Permissions() || (file && file->created_with == permissions);
}

int FileSystem::SetSize(Ino ino, std::uint64_t size) {
  Opened opened;
  {
    const MutexLock guard(drive.lock);
    if (const auto file = drive.open_files.Find(ino); file && file->writers > 0) {
      opened = MakeHandle(file, O_WRONLY);  // those who have it open close it later
    }
  }
  if (opened.handle == 0) {
    if (const int error = Open(ino, size == 0 ? O_WRONLY | O_TRUNC : O_WRONLY, opened);
        error != 0) {
      return error;
    }
  }
  const auto open = GetHandle(opened.handle);
  if (!open) {
    return EBADF;  // everything was closed meanwhile
  }
  const auto& file = open->file;
  std::shared_ptr<WorkFile> work;
  int error = WorkFor(file, size, work);
  error = error == 0 ? work->SetSize(size) : error;
  bool is_last = false;
  {
    const MutexLock guard(drive.lock);
    is_last = file->writers == 1;
  }
  if (is_last) {
    const int save_error = sender.Save(file);
    error = error == 0 ? save_error : error;
  }
  CloseHandle(opened.handle);
  return error;
}

int FileSystem::SetModified(Ino ino, const FS_TIME& time) {
  if (unsent_files.SetModified(ino, time)) {
    return 0;
  }
  std::vector<std::string> paths;
  const auto hold = drive.HoldPlaces({{{ino, ""}}}, paths);
  if (!hold) {
    return 0;  // a removed file that is still open
  }
  std::shared_ptr<OpenFile> file;
  std::shared_ptr<WorkFile> work;
  {
    const MutexLock guard(drive.lock);
    file = drive.open_files.Find(ino);
    work = file ? file->work : nullptr;
  }
  if (unsent_files.SetModified(ino, time)) {  // it was changed while this waited
    return 0;
  }
  const bool is_as_opened = file && finder.FindAsOpened(*file, paths[0]);
  const AERROR error = remote.SetModifiedTime(paths[0], time);
  if (error == NOT_SUPPORTED) {
    return 0;  // the remote keeps no times; programs that copy them are not to fail for it
  }
  if (error != SUCCESS) {
    return ErrnoOf(error);
  }
  if (work) {
    work->SetModified(time);
  }
  {
    const MutexLock guard(drive.lock);
    drive.listings.Forget(paths[0]);
  }
  if (is_as_opened && finder.TakeNewVersion(*file, paths[0])) {
    unsent_files.KeepAnew(*file);
  }
  return 0;
}

}  // namespace tarn::fs
