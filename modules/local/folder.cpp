#include "modules/local/folder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

#include "common/posix.h"
#include "modules/local/drive_path.h"
#include "modules/local/errors.h"
#include "modules/local/staged_file.h"

namespace tarn::local {

namespace {

constexpr int kMostLinks = 40;
constexpr size_t kNoLink = static_cast<size_t>(-1);

// A folder that is only walked through need not be readable.
#if defined(O_PATH)
constexpr int kWalkFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#elif defined(O_SEARCH)
constexpr int kWalkFlags = O_SEARCH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#else
constexpr int kWalkFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#endif

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

const timespec& ModifiedTime(const struct stat& status) {
#if defined(__APPLE__)
  return status.st_mtimespec;
#else
  return status.st_mtim;
#endif
}

const timespec& ChangedTime(const struct stat& status) {
#if defined(__APPLE__)
  return status.st_ctimespec;
#else
  return status.st_ctim;
#endif
}

// The part of a version that stands for the content, up to and with the "/".
std::string ContentVersion(const struct stat& status) {
  const timespec& modified = ModifiedTime(status);
  std::array<char, 128> text{};
  (void)std::snprintf(text.data(), text.size(), "%llx-%llx-%llx.%lx/",
                      static_cast<unsigned long long>(status.st_ino),
                      static_cast<unsigned long long>(status.st_size),
                      static_cast<unsigned long long>(modified.tv_sec),
                      static_cast<unsigned long>(modified.tv_nsec));
  return text.data();
}

std::string Joined(const std::string& start, const std::vector<std::string>& names, size_t count) {
  std::string path = start;
  for (size_t i = 0; i < count; ++i) {
    path += '/';
    path += names[i];
  }
  return path;
}

// A path without links; the empty text, with errno set, when it leads nowhere.
std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  return real != nullptr ? real.get() : "";
}

// The same for a mount point, which need not be there yet.
std::string RealMountPoint(const std::string& path) {
  std::string real = RealPath(path);
  const size_t name = path.rfind('/');
  if (!real.empty() || name == std::string::npos) {
    return real;
  }
  return RealPath(path.substr(0, name) + "/") + path.substr(name);
}

// The names that lead from a folder down to a path; none for a path that is not below it.
std::vector<std::string> NamesBelow(const std::string& folder, const std::string& path) {
  const std::string inside = folder + "/";
  return path.starts_with(inside) ? SplitNames(path.substr(inside.size()))
                                  : std::vector<std::string>();
}

// Calls entry(name) for each name until it answers false.
template <typename Entry>
AERROR ListEntries(DIR* directory, Entry entry) {
  for (;;) {
    errno = 0;
    const dirent* next = ::readdir(directory);
    if (next == nullptr) {
      return errno == 0 ? SUCCESS : ErrorOf(errno);
    }
    if (!entry(static_cast<const char*>(next->d_name))) {
      return SUCCESS;
    }
  }
}

AERROR MissingFolder(int error_number) {
  return error_number == ENOENT || error_number == ENOTDIR || error_number == ELOOP
             ? PATH_NOT_FOUND
             : ErrorOf(error_number);
}

}  // namespace

Kind KindOf(const struct stat& status) {
  if (S_ISREG(status.st_mode)) {
    return Kind::kFile;
  }
  if (S_ISDIR(status.st_mode)) {
    return Kind::kFolder;
  }
  return S_ISLNK(status.st_mode) ? Kind::kLink : Kind::kOther;
}

FS_INFO InfoOf(const struct stat& status) {
  FS_INFO info{};
  info.is_folder = S_ISDIR(status.st_mode) ? 1 : 0;
  info.size = info.is_folder != 0 ? 0 : static_cast<unsigned long long>(status.st_size);
  info.modified.seconds = ModifiedTime(status).tv_sec;
  info.modified.nanoseconds = static_cast<int>(ModifiedTime(status).tv_nsec);
  const timespec& changed = ChangedTime(status);
  (void)std::snprintf(
      info.version, sizeof info.version, "%s%llx.%lx", ContentVersion(status).c_str(),
      static_cast<unsigned long long>(changed.tv_sec), static_cast<unsigned long>(changed.tv_nsec));
  return info;
}

bool IsVersionOf(const struct stat& status, std::string_view version) {
  return version.starts_with(ContentVersion(status));
}

AERROR Folder::Open(const std::string& path, const std::string& mount_point) {
  const std::string real = RealPath(path);
  if (real.empty()) {
    return MissingFolder(errno);
  }
  root_path = real == "/" ? "" : real;
  mount_point_names = NamesBelow(root_path, RealMountPoint(mount_point));
  root = OpenFile(real, O_RDONLY | O_DIRECTORY);
  return root.valid() ? SUCCESS : MissingFolder(errno);
}

// Whether the first `count` names lead to where the drive is mounted.
bool Folder::IsMountPoint(const Names& names, size_t count) const {
  return count > 0 && count == mount_point_names.size() &&
         std::equal(mount_point_names.begin(), mount_point_names.end(), names.begin());
}

// Goes down from the root as far as no link stands in the way; `link` is then the index of the name
// that is one, else kNoLink.
AERROR Folder::Walk(const Names& names, LastLink last, Place& place, size_t& link) const {
  link = kNoLink;
  place.name = ".";
  place.kind = Kind::kFolder;
  if (::fstat(root.get(), &place.status) != 0 || place.status.st_nlink == 0) {
    return DEVICE_NOT_READY;  // the folder itself is gone, which is not an empty drive
  }
  place.folder = UniqueFd(::openat(root.get(), place.name.c_str(), kWalkFlags));
  for (size_t i = 0; place.folder.valid() && i < names.size(); ++i) {
    const bool is_last = i + 1 == names.size();
    if (i > 0) {
      place.folder = UniqueFd(::openat(place.folder.get(), place.name.c_str(), kWalkFlags));
      if (!place.folder.valid()) {
        break;
      }
    }
    place.name = names[i];
    if (IsMountPoint(names, i + 1)) {
      place.kind = Kind::kOther;
      return is_last ? SUCCESS : PATH_NOT_FOUND;
    }
    place.kind = Kind::kNothing;
    if (::fstatat(place.folder.get(), place.name.c_str(), &place.status, AT_SYMLINK_NOFOLLOW) !=
        0) {
      return is_last && errno == ENOENT ? SUCCESS : MissingFolder(errno);
    }
    place.kind = KindOf(place.status);
    if (place.kind == Kind::kLink && (!is_last || last == LastLink::kFollow)) {
      link = i;
      return SUCCESS;
    }
  }
  return place.folder.valid() ? SUCCESS : MissingFolder(errno);
}

// Puts the names of what a link points to in the place of the names up to the link. The system's
// answer is only a hint where to walk next: the walk trusts no name.
bool Folder::FollowLink(Names& names, size_t link) const {
  Names target = NamesBelow(root_path, RealPath(Joined(root_path, names, link + 1)));
  const auto link_name = names.begin() + static_cast<std::ptrdiff_t>(link);
  // A link that leads out has no names below the root, as one to the root itself, the folder above
  // all others.
  const bool is_above =
      target.size() <= link && std::equal(target.begin(), target.end(), names.begin());
  if (is_above || !std::all_of(target.begin(), target.end(), IsDriveName)) {
    return false;
  }
  target.insert(target.end(), link_name + 1, names.end());
  names = std::move(target);
  return true;
}

AERROR Folder::Find(std::string_view path, LastLink last, Place& place) const {
  Names names;
  if (!SplitDrivePath(path, names)) {
    return INVALID_NAME;
  }
  for (int links = 0; links <= kMostLinks; ++links) {
    size_t link = kNoLink;
    const AERROR error = Walk(names, last, place, link);
    if (error != SUCCESS || link == kNoLink) {
      place.names = std::move(names);
      return error;
    }
    if (!FollowLink(names, link)) {
      return link + 1 == names.size() ? FILE_NOT_FOUND : PATH_NOT_FOUND;
    }
  }
  return PATH_NOT_FOUND;
}

AERROR Folder::FindExisting(std::string_view path, Place& place) const {
  const AERROR error = Find(path, LastLink::kFollow, place);
  if (error != SUCCESS) {
    return error;
  }
  return place.kind == Kind::kFile || place.kind == Kind::kFolder ? SUCCESS : FILE_NOT_FOUND;
}

// What a listing of the open folder `place` says of a name; false when it does not show it.
bool Folder::GetShown(int folder, const Place& place, const char* name, struct stat& status) const {
  Names names = place.names;
  names.emplace_back(name);
  if (!IsDriveName(name) || IsMountPoint(names, names.size()) ||
      ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return false;
  }
  Kind kind = KindOf(status);
  if (kind == Kind::kLink) {
    Place target;
    if (FindExisting(Joined("", names, names.size()), target) != SUCCESS) {
      return false;
    }
    status = target.status;
    kind = target.kind;
  }
  return kind == Kind::kFile || kind == Kind::kFolder;
}

AERROR Folder::List(std::string_view path, FS_LIST_SINK sink, void* context) const {
  Place place;
  const AERROR error = FindExisting(path, place);
  if (error != SUCCESS) {
    return error == FILE_NOT_FOUND ? PATH_NOT_FOUND : error;
  }
  if (place.kind != Kind::kFolder) {
    return INVALID_DIRECTORY;
  }
  UniqueFd opened = OpenFolderAt(place);
  if (!opened.valid()) {
    return MissingFolder(errno);
  }
  const int folder = opened.get();
  const Directory directory(::fdopendir(folder));
  if (directory == nullptr) {
    return ErrorOf(errno);
  }
  (void)opened.release();  // the stream closes it
  return ListEntries(directory.get(), [&](const char* name) {
    if (std::string_view(name).starts_with(kWorkFilePrefix)) {
      RemoveAbandonedWorkFile(folder, name);
      return true;
    }
    struct stat status {};
    if (!GetShown(folder, place, name, status)) {
      return true;
    }
    const FS_INFO info = InfoOf(status);
    return sink(context, name, &info) != 0;
  });
}

UniqueFd OpenFolderAt(const Place& place) {
  return UniqueFd(::openat(place.folder.get(), place.name.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// What stands under the name may have changed since it was found, so the opening must not wait for
// a FIFO's other end, and what it opened is looked at again.
UniqueFd OpenFileAt(const Place& place) {
  UniqueFd file(::openat(place.folder.get(), place.name.c_str(),
                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (file.valid() && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file.reset();
    errno = ENOENT;
  }
  return file;
}

}  // namespace tarn::local
