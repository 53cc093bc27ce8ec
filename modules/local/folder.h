#pragma once

#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "common/unique_fd.h"
#include "interfaces/aerror.h"
#include "interfaces/fs_types.h"

namespace tarn::local {

// What stands under a name. A link that is kept is neither file nor folder.
enum class Kind { kNothing, kFile, kFolder, kLink, kOther };

[[nodiscard]] Kind KindOf(const struct stat& status);

// What List and GetInfo tell of a file or folder.
[[nodiscard]] FS_INFO InfoOf(const struct stat& status);

// Whether `version` is the content that `status` stands for. Times at which only the name or the
// rights changed do not count.
[[nodiscard]] bool IsVersionOf(const struct stat& status, std::string_view version);

// A name in an open folder, the last step of a path.
struct Place {
  UniqueFd folder;                 // good for the ...at calls only
  std::string name;                // "." for the root
  std::vector<std::string> names;  // the whole path below the root, without links
  Kind kind = Kind::kNothing;
  struct stat status {};  // unless the kind is kNothing
};

enum class LastLink { kFollow, kKeep };

// A folder of this machine, seen as the root of a drive. Everything below is reached one name after
// the other from the open root, and no step follows a symbolic link: links are resolved here, and
// one that leads out of the folder, nowhere or to a folder above itself counts as not there. So
// whatever happens to the names meanwhile, nothing outside is ever touched. Any thread.
class Folder {
 public:
  // Opens the folder. PATH_NOT_FOUND, ACCESS_DENIED or what else keeps it from being read. Where
  // the drive itself is mounted below it, at `mount_point` (may be empty), nothing is to be seen:
  // there the drive would be asked for its own files, without end.
  [[nodiscard]] AERROR Open(const std::string& path, const std::string& mount_point);

  // Its path without links.
  [[nodiscard]] const std::string& GetPath() const { return root_path; }

  // The open folder itself.
  [[nodiscard]] int GetRoot() const { return root.get(); }

  // Finds a path of the drive. A last name that is missing is no error, its kind is kNothing.
  // PATH_NOT_FOUND: a folder on the way is missing. FILE_NOT_FOUND: the last name is a link that
  // counts as not there. INVALID_NAME: no path of a drive.
  [[nodiscard]] AERROR Find(std::string_view path, LastLink last, Place& place) const;

  // As Find, for a path that must lead to a file or a folder.
  [[nodiscard]] AERROR FindExisting(std::string_view path, Place& place) const;

  // Delivers the files and folders of a folder; work files of uploads are not shown, those that
  // an upload left behind are removed.
  [[nodiscard]] AERROR List(std::string_view path, FS_LIST_SINK sink, void* context) const;

 private:
  using Names = std::vector<std::string>;

  [[nodiscard]] AERROR Walk(const Names& names, LastLink last, Place& place, size_t& link) const;
  [[nodiscard]] bool FollowLink(Names& names, size_t link) const;
  [[nodiscard]] bool GetShown(int folder, const Place& place, const char* name,
                              struct stat& status) const;
  [[nodiscard]] bool IsMountPoint(const Names& names, size_t count) const;

  UniqueFd root;
  std::string root_path;
  Names mount_point_names;  // none: the drive is mounted elsewhere
};

// Opens a found file or folder, never anything else; not valid() on failure, errno set.
[[nodiscard]] UniqueFd OpenFileAt(const Place& place);
[[nodiscard]] UniqueFd OpenFolderAt(const Place& place);

}  // namespace tarn::local
