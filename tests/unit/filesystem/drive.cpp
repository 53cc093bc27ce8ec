#include "tests/unit/filesystem/drive.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/filesystem/names.h"

namespace tarn::test {

using fs::FileSystem;
using fs::Ino;
using fs::Stat;

int Calls::WriteFile(const std::string& path, const std::string& content) {
  int file = -1;
  if (const int error = Open(path, O_WRONLY | O_CREAT | O_TRUNC, file); error != 0) {
    return error;
  }
  const int write_error = content.empty() ? 0 : Write(file, 0, content);
  const int close_error = Close(file);
  return write_error != 0 ? write_error : close_error;
}

int Calls::ReadFile(const std::string& path, std::string& content) {
  int file = -1;
  if (const int error = Open(path, O_RDONLY, file); error != 0) {
    return error;
  }
  content.clear();
  int error = 0;
  for (std::string part = "?"; error == 0 && !part.empty(); content += part) {
    error = Read(file, content.size(), 100'000, part);
  }
  const int close_error = Close(file);
  return error != 0 ? error : close_error;
}

std::string Calls::Content(const std::string& path) {
  std::string content;
  return ReadFile(path, content) == 0 ? content : "(error)";
}

class DirectCalls::Node {
 public:
  Node(FileSystem& tested, const std::string& path) : files(tested) {
    if (path == "/") {
      return;
    }
    const Node folder(files, std::string(fs::FolderOf(path)));
    error = folder.error != 0 ? folder.error
                              : files.Lookup(folder.stat.ino, std::string(fs::NameOf(path)), stat);
    counted = error == 0;
  }
  ~Node() {
    if (counted) {
      files.Forget(stat.ino, 1);
    }
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  int error = 0;
  Stat stat = {};

 private:
  FileSystem& files;
  bool counted = false;
};

struct DirectCalls::Place {
  Place(FileSystem& files, const std::string& path)
      : folder(files, std::string(fs::FolderOf(path))), name(fs::NameOf(path)) {}
  Node folder;
  std::string name;
};

int DirectCalls::Open(const std::string& path, int flags, int& file) {
  const Place place(files, path);
  if (place.folder.error != 0) {
    return place.folder.error;
  }
  Stat stat;
  FileSystem::Opened handle;
  int error = files.Lookup(place.folder.stat.ino, place.name, stat);
  if (error == 0) {
    error = files.Open(stat.ino, flags & ~O_CREAT, handle);
    if (error != 0) {
      files.Forget(stat.ino, 1);
    }
  } else if (error == ENOENT && (flags & O_CREAT) != 0) {
    error = files.Create(place.folder.stat.ino, place.name, flags, stat, handle);
  }
  if (error == 0) {
    file = next++;
    opened.emplace(file, Opened{stat.ino, handle.handle});
  }
  return error;
}

int DirectCalls::Close(int file) {
  const Opened closed = opened.at(file);
  opened.erase(file);
  const int error = files.Flush(closed.handle);
  files.Release(closed.handle);
  files.Forget(closed.ino, 1);
  return error;
}

int DirectCalls::Sync(int file) {
  return files.Sync(opened.at(file).handle);
}

int DirectCalls::Read(int file, std::uint64_t offset, size_t length, std::string& content) {
  content.resize(length);
  size_t received = 0;
  const int error = files.Read(opened.at(file).handle, offset, content.data(), length, received);
  content.resize(received);
  return error;
}

int DirectCalls::Write(int file, std::uint64_t offset, const std::string& content) {
  size_t written = 0;
  const int error =
      files.Write(opened.at(file).handle, offset, content.data(), content.size(), false, written);
  return error == 0 && written != content.size() ? EIO : error;
}

int DirectCalls::Truncate(int file, std::uint64_t size) {
  Stat stat;
  fs::AttributeChange change;
  change.size = size;
  return files.SetAttributes(opened.at(file).ino, change, stat);
}

int DirectCalls::Rename(const std::string& from, const std::string& to) {
  const Node source(files, from);
  const Node target(files, to);  // the kernel has looked both up
  const Place old_place(files, from);
  const Place new_place(files, to);
  if (source.error != 0 || new_place.folder.error != 0) {
    return source.error != 0 ? source.error : new_place.folder.error;
  }
  if (target.error == 0 && target.stat.is_folder != source.stat.is_folder) {
    return source.stat.is_folder ? ENOTDIR : EISDIR;
  }
  return files.Rename(old_place.folder.stat.ino, old_place.name, new_place.folder.stat.ino,
                      new_place.name, true);
}

int DirectCalls::Unlink(const std::string& path) {
  const Node node(files, path);
  const Place place(files, path);
  if (node.error != 0 || node.stat.is_folder) {
    return node.error != 0 ? node.error : EISDIR;
  }
  return files.RemoveFile(place.folder.stat.ino, place.name);
}

int DirectCalls::MakeFolder(const std::string& path) {
  const Node node(files, path);
  if (node.error == 0) {
    return EEXIST;
  }
  const Place place(files, path);
  Stat stat;
  const int error = place.folder.error != 0
                        ? place.folder.error
                        : files.MakeFolder(place.folder.stat.ino, place.name, stat);
  if (error == 0) {
    files.Forget(stat.ino, 1);
  }
  return error;
}

int DirectCalls::RemoveFolder(const std::string& path) {
  const Node node(files, path);
  const Place place(files, path);
  if (node.error != 0 || !node.stat.is_folder) {
    return node.error != 0 ? node.error : ENOTDIR;
  }
  return files.RemoveFolder(place.folder.stat.ino, place.name);
}

int DirectCalls::GetSize(const std::string& path, std::uint64_t& size) {
  const Node node(files, path);
  Stat stat;
  const int error = node.error != 0 ? node.error : files.GetAttributes(node.stat.ino, stat);
  size = stat.size;
  return error;
}

int DirectCalls::List(const std::string& path, std::vector<std::string>& names) {
  const Node node(files, path);
  FileSystem::FolderContent content;
  const int error = node.error != 0 ? node.error : files.ReadFolder(node.stat.ino, content);
  names.clear();
  for (const fs::Entry& entry : content.entries) {
    names.push_back(entry.name);
  }
  std::sort(names.begin(), names.end());
  return error;
}

namespace {

int ErrnoIf(bool failed) {
  return failed ? errno : 0;
}

}  // namespace

int FolderCalls::Open(const std::string& path, int flags, int& file) {
  file = ::open((root + path).c_str(), flags | O_CLOEXEC, 0644);
  return ErrnoIf(file < 0);
}

int FolderCalls::Close(int file) {
  return ErrnoIf(::close(file) != 0);
}

int FolderCalls::Sync(int file) {
  return ErrnoIf(::fsync(file) != 0);
}

int FolderCalls::Read(int file, std::uint64_t offset, size_t length, std::string& content) {
  content.resize(length);
  const ssize_t count = ::pread(file, content.data(), length, static_cast<off_t>(offset));
  content.resize(count < 0 ? 0 : static_cast<size_t>(count));
  return ErrnoIf(count < 0);
}

int FolderCalls::Write(int file, std::uint64_t offset, const std::string& content) {
  const ssize_t count = ::pwrite(file, content.data(), content.size(), static_cast<off_t>(offset));
  return ErrnoIf(count != static_cast<ssize_t>(content.size()));
}

int FolderCalls::Truncate(int file, std::uint64_t size) {
  return ErrnoIf(::ftruncate(file, static_cast<off_t>(size)) != 0);
}

int FolderCalls::Rename(const std::string& from, const std::string& to) {
  return ErrnoIf(::rename((root + from).c_str(), (root + to).c_str()) != 0);
}

int FolderCalls::Unlink(const std::string& path) {
  return ErrnoIf(::unlink((root + path).c_str()) != 0);
}

int FolderCalls::MakeFolder(const std::string& path) {
  return ErrnoIf(::mkdir((root + path).c_str(), 0755) != 0);
}

int FolderCalls::RemoveFolder(const std::string& path) {
  return ErrnoIf(::rmdir((root + path).c_str()) != 0);
}

int FolderCalls::GetSize(const std::string& path, std::uint64_t& size) {
  struct stat info = {};
  const int error = ErrnoIf(::stat((root + path).c_str(), &info) != 0);
  size = static_cast<std::uint64_t>(info.st_size);
  return error;
}

int FolderCalls::List(const std::string& path, std::vector<std::string>& names) {
  names.clear();
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir((root + path).c_str()), &::closedir);
  if (!folder) {
    return errno;
  }
  errno = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    if (const std::string name = entry->d_name; name != "." && name != "..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return errno;
}

std::shared_ptr<IProtocol_V2> Share(IProtocol_V2& protocol) {
  return {&protocol, [](IProtocol_V2*) {}};
}

}  // namespace tarn::test
