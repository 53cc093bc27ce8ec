#include "platform/filesystem/mount_point.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <optional>
#include <spawn.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/filesystem/bindings.h"

extern "C" char** environ;

namespace tarn::fs {

namespace {

// The mount table writes blanks, tabs, newlines and backslashes as "\ooo".
std::string Unescape(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// The device of what is mounted at `path`, the uppermost if there are several.
std::optional<dev_t> MountedAt(const std::string& path) {
  std::ifstream table("/proc/self/mountinfo");
  std::optional<dev_t> found;
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string root;
    std::string mount_point;
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    fields >> id >> parent >> major >> colon >> minor >> root >> mount_point;
    if (fields && Unescape(mount_point) == path) {
      found = makedev(major, minor);
    }
  }
  return found;
}

bool IsEmptyFolder(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), &::closedir);
  if (!folder) {
    return false;
  }
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      return false;
    }
  }
  return true;
}

std::string Resolve(const std::string& path) {
  const std::unique_ptr<char, void (*)(void*)> resolved(::realpath(path.c_str(), nullptr),
                                                        &std::free);
  return resolved ? resolved.get() : "";
}

// What an ordinary user needs for unmounting, silent and without a shell.
bool RunFusermount(const std::string& path, bool detach) {
  std::string name = "fusermount3";
  std::string unmount = detach ? "-uqz" : "-uq";
  std::string target = path;  // absolute, so it cannot be taken for an option
  std::array<char*, 4> arguments = {name.data(), unmount.data(), target.data(), nullptr};
  posix_spawn_file_actions_t streams;
  if (::posix_spawn_file_actions_init(&streams) != 0) {
    return false;
  }
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    (void)::posix_spawn_file_actions_addopen(&streams, stream, "/dev/null", O_RDWR, 0);
  }
  pid_t child = -1;
  const int error =
      ::posix_spawnp(&child, name.c_str(), &streams, nullptr, arguments.data(), environ);
  (void)::posix_spawn_file_actions_destroy(&streams);
  if (error != 0) {
    return false;
  }
  int status = -1;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::string ResolveFolderOf(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') {
    trimmed.pop_back();
  }
  const size_t slash = trimmed.rfind('/');
  const std::string name = slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") {
    return Resolve(trimmed);
  }
  const std::string folder = Resolve(slash == std::string::npos ? "."
                                     : slash == 0               ? "/"
                                                                : trimmed.substr(0, slash));
  if (folder.empty()) {
    return "";
  }
  return folder == "/" ? "/" + name : folder + "/" + name;
}

bool IsMountPoint(const std::string& path) {
  return MountedAt(path).has_value();
}

AERROR MountPoint::Take(const std::string& wanted) {
  const std::string place = ResolveFolderOf(wanted);
  if (place.empty() || IsMountPoint(place)) {
    return FS_MOUNT_POINT_ERROR;
  }
  is_made = ::mkdir(place.c_str(), 0755) == 0;
  path = Resolve(place);
  struct stat info = {};
  if (path.empty() || IsMountPoint(path) || ::stat(path.c_str(), &info) != 0 ||
      !S_ISDIR(info.st_mode) || !IsEmptyFolder(path)) {
    GiveBack();
    return FS_MOUNT_POINT_ERROR;
  }
  volume = info.st_dev;
  return SUCCESS;
}

void MountPoint::GiveBack() {
  if (is_made && ::rmdir(path.c_str()) != 0) {
    Log(LOGLEVEL_INFO, "mount point %s stays: errno %d", path.c_str(), errno);
  }
  is_made = false;
}

bool MountPoint::Confirm() {
  const std::optional<dev_t> mounted = MountedAt(path);
  if (!mounted) {
    return false;
  }
  volume = *mounted;
  return true;
}

bool MountPoint::IsMounted() const {
  return MountedAt(path) == volume;
}

bool MountPoint::Unmount(bool detach) const {
  if (!IsMounted()) {
    return true;
  }
  const int flags = UMOUNT_NOFOLLOW | (detach ? MNT_DETACH : 0);
  if (::umount2(path.c_str(), flags) == 0) {
    return true;
  }
  if (errno == EPERM) {
    (void)RunFusermount(path, detach);  // the mount table tells how it went
  }
  return !IsMounted();
}

}  // namespace tarn::fs
