#include "modules/local/changes.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "modules/local/errors.h"
#include "modules/local/staged_file.h"

namespace tarn::local {

namespace {

constexpr mode_t kNewFolderMode = 0777;  // less what the umask takes away

// A name as it stands and what is shown under it; these differ for a link.
struct Entry {
  Place place;
  Kind shown = Kind::kNothing;
};

AERROR FindEntry(const Folder& folder, const char* path, Entry& entry) {
  const AERROR error = folder.Find(path, LastLink::kKeep, entry.place);
  if (error != SUCCESS) {
    return error;
  }
  entry.shown = entry.place.kind;
  if (entry.place.kind == Kind::kLink) {
    Place target;
    entry.shown = folder.FindExisting(path, target) == SUCCESS ? target.kind : Kind::kOther;
  }
  return SUCCESS;
}

bool IsShown(const Entry& entry) {
  return entry.shown == Kind::kFile || entry.shown == Kind::kFolder;
}

AERROR Remove(const Place& place, int flags) {
  if (::unlinkat(place.folder.get(), place.name.c_str(), flags) != 0) {
    return ErrorOf(errno);
  }
  FlushFolder(place.folder.get());
  return SUCCESS;
}

int IgnoreEntry(void* /*context*/, const char* /*name*/, const FS_INFO* /*info*/) {
  return 1;
}

int NoteEntry(void* context, const char* /*name*/, const FS_INFO* /*info*/) {
  *static_cast<bool*>(context) = true;
  return 0;
}

// A folder that is reached through a link must be empty too before the link goes.
AERROR RemoveFolderLink(const Folder& folder, const char* path, const Place& link) {
  bool has_entries = false;
  const AERROR error = folder.List(path, NoteEntry, &has_entries);
  if (error != SUCCESS) {
    return error;
  }
  return has_entries ? DIR_NOT_EMPTY : Remove(link, 0);
}

bool IsSameFolder(int left, int right) {
  struct stat first {};
  struct stat second {};
  return ::fstat(left, &first) == 0 && ::fstat(right, &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// What keeps `from` from taking the name `to`, apart from what the system itself refuses.
AERROR CheckMove(const Entry& from, const Entry& to, bool may_move_folders) {
  if (!IsShown(from)) {
    return FILE_NOT_FOUND;
  }
  if (to.shown == Kind::kOther) {
    return ACCESS_DENIED;  // something that is not shown has the name
  }
  if (to.shown != Kind::kNothing && to.shown != from.shown) {
    return ALREADY_EXISTS;
  }
  if (from.shown == Kind::kFolder && to.place.kind == Kind::kLink) {
    return ALREADY_EXISTS;
  }
  if (from.shown == Kind::kFolder && !may_move_folders) {
    return NOT_SUPPORTED;
  }
  // A link says where to go from its own folder: elsewhere it would lead astray.
  const bool is_stray = from.place.kind == Kind::kLink &&
                        !IsSameFolder(from.place.folder.get(), to.place.folder.get());
  return is_stray ? NOT_SUPPORTED : SUCCESS;
}

}  // namespace

AERROR MakeFolder(const Folder& folder, const char* path) {
  Place place;
  const AERROR error = folder.Find(path, LastLink::kKeep, place);
  if (error != SUCCESS) {
    return error;
  }
  if (::mkdirat(place.folder.get(), place.name.c_str(), kNewFolderMode) != 0) {
    return ErrorOf(errno);
  }
  FlushFolder(place.folder.get());
  return SUCCESS;
}

AERROR RemoveFile(const Folder& folder, const char* path) {
  Entry entry;
  const AERROR error = FindEntry(folder, path, entry);
  if (error != SUCCESS) {
    return error;
  }
  if (!IsShown(entry)) {
    return FILE_NOT_FOUND;
  }
  return entry.shown == Kind::kFolder ? ACCESS_DENIED : Remove(entry.place, 0);
}

AERROR RemoveFolder(const Folder& folder, const char* path) {
  Entry entry;
  const AERROR error = FindEntry(folder, path, entry);
  if (error != SUCCESS) {
    return error;
  }
  if (entry.shown != Kind::kFolder) {
    return entry.shown == Kind::kFile ? INVALID_DIRECTORY : FILE_NOT_FOUND;
  }
  if (entry.place.kind == Kind::kLink) {
    return RemoveFolderLink(folder, path, entry.place);
  }
  AERROR removed = Remove(entry.place, AT_REMOVEDIR);
  if (removed == DIR_NOT_EMPTY && folder.List(path, IgnoreEntry, nullptr) == SUCCESS) {
    removed = Remove(entry.place, AT_REMOVEDIR);  // the listing took abandoned work files away
  }
  return removed;
}

AERROR MoveEntry(const Folder& folder, const char* from, const char* to, bool may_move_folders) {
  Entry source;
  Entry target;
  AERROR error = FindEntry(folder, from, source);
  if (error == SUCCESS) {
    error = FindEntry(folder, to, target);
  }
  if (error == SUCCESS) {
    error = CheckMove(source, target, may_move_folders);
  }
  if (error != SUCCESS) {
    return error;
  }
  if (::renameat(source.place.folder.get(), source.place.name.c_str(), target.place.folder.get(),
                 target.place.name.c_str()) != 0) {
    return ErrorOf(errno);
  }
  FlushFolder(target.place.folder.get());
  FlushFolder(source.place.folder.get());
  return SUCCESS;
}

AERROR SetTime(const Folder& folder, const char* path, const FS_TIME& time) {
  Place place;
  const AERROR error = folder.FindExisting(path, place);
  if (error != SUCCESS) {
    return error;
  }
  timespec times[2]{};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(time.seconds);
  times[1].tv_nsec = time.nanoseconds;
  return ::utimensat(place.folder.get(), place.name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0
             ? SUCCESS
             : ErrorOf(errno);
}

}  // namespace tarn::local
