#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "interfaces/filesystem.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/filesystem/memory_protocol.h"

namespace tarn::test {

// The calls of programs on a drive, by path. Results are 0 or an errno value; numbers of files are
// the test's own. Implemented without a mount, and on a mounted folder.
class Calls {
 public:
  virtual ~Calls() = default;
  virtual int Open(const std::string& path, int flags, int& file) = 0;
  virtual int Close(int file) = 0;
  virtual int Sync(int file) = 0;
  virtual int Read(int file, std::uint64_t offset, size_t length, std::string& content) = 0;
  virtual int Write(int file, std::uint64_t offset, const std::string& content) = 0;
  virtual int Truncate(int file, std::uint64_t size) = 0;
  virtual int Rename(const std::string& from, const std::string& to) = 0;
  virtual int Unlink(const std::string& path) = 0;
  virtual int MakeFolder(const std::string& path) = 0;
  virtual int RemoveFolder(const std::string& path) = 0;
  virtual int GetSize(const std::string& path, std::uint64_t& size) = 0;
  virtual int List(const std::string& path, std::vector<std::string>& names) = 0;  // sorted

  // Whole contents.
  int WriteFile(const std::string& path, const std::string& content) {
    int file = -1;
    if (const int error = Open(path, O_WRONLY | O_CREAT | O_TRUNC, file); error != 0) {
      return error;
    }
    const int write_error = content.empty() ? 0 : Write(file, 0, content);
    const int close_error = Close(file);
    return write_error != 0 ? write_error : close_error;
  }
  int ReadFile(const std::string& path, std::string& content) {
    int file = -1;
    int error = Open(path, O_RDONLY, file);
    if (error != 0) {
      return error;
    }
    content.clear();
    for (std::string part = "?"; error == 0 && !part.empty(); content += part) {
      error = Read(file, content.size(), 100'000, part);
    }
    const int close_error = Close(file);
    return error != 0 ? error : close_error;
  }
  std::string Content(const std::string& path) {  // "(error)" when it cannot be read
    std::string content;
    return ReadFile(path, content) == 0 ? content : "(error)";
  }
  std::string ReadAt(int file, std::uint64_t offset, size_t length) {  // "(errno N)"
    std::string content;
    const int error = Read(file, offset, length, content);
    return error == 0 ? content : "(errno " + std::to_string(error) + ")";
  }
  // What must be there.
  int Opened(const std::string& path, int flags) {
    int file = -1;
    EXPECT_EQ(Open(path, flags, file), 0) << path;
    return file;
  }
  std::vector<std::string> Names(const std::string& path) {  // sorted
    std::vector<std::string> names;
    EXPECT_EQ(List(path, names), 0) << path;
    return names;
  }
};

// Calls on a folder of this machine.
class FolderCalls : public Calls {
 public:
  explicit FolderCalls(std::string folder) : root(std::move(folder)) {}

  int Open(const std::string& path, int flags, int& file) override {
    file = ::open((root + path).c_str(), flags | O_CLOEXEC, 0644);
    return ErrnoIf(file < 0);
  }
  int Close(int file) override { return ErrnoIf(::close(file) != 0); }
  int Sync(int file) override { return ErrnoIf(::fsync(file) != 0); }
  int Read(int file, std::uint64_t offset, size_t length, std::string& content) override {
    content.resize(length);
    const ssize_t count = ::pread(file, content.data(), length, static_cast<off_t>(offset));
    content.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return ErrnoIf(count < 0);
  }
  int Write(int file, std::uint64_t offset, const std::string& content) override {
    const ssize_t count =
        ::pwrite(file, content.data(), content.size(), static_cast<off_t>(offset));
    return ErrnoIf(count != static_cast<ssize_t>(content.size()));
  }
  int Truncate(int file, std::uint64_t size) override {
    return ErrnoIf(::ftruncate(file, static_cast<off_t>(size)) != 0);
  }
  int Rename(const std::string& from, const std::string& to) override {
    return ErrnoIf(::rename((root + from).c_str(), (root + to).c_str()) != 0);
  }
  int Unlink(const std::string& path) override {
    return ErrnoIf(::unlink((root + path).c_str()) != 0);
  }
  int MakeFolder(const std::string& path) override {
    return ErrnoIf(::mkdir((root + path).c_str(), 0755) != 0);
  }
  int RemoveFolder(const std::string& path) override {
    return ErrnoIf(::rmdir((root + path).c_str()) != 0);
  }
  int GetSize(const std::string& path, std::uint64_t& size) override {
    std::error_code error;
    size = std::filesystem::file_size(root + path, error);
    return error.value();
  }
  int List(const std::string& path, std::vector<std::string>& names) override {
    names.clear();
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(root + path, error)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return error.value();
  }

 private:
  static int ErrnoIf(bool failed) { return failed ? errno : 0; }

  const std::string root;
};

// Shares a protocol that the test owns.
inline std::shared_ptr<IProtocol_V2> Share(IProtocol_V2& protocol) {
  return {&protocol, [](IProtocol_V2*) {}};
}

// A volume without a protocol in a folder of its own; taken away at the end whatever happened.
class MountedDrive {
 public:
  explicit MountedDrive(const std::string& label = "drive")
      : path(folder.path() / "volume"),
        result(::Mount(path.c_str(), label.c_str(), 2, &drive, nullptr)) {}
  ~MountedDrive() {
    if (result == SUCCESS && ::Unmount(path.c_str()) != SUCCESS) {
      (void)::umount2(path.c_str(), MNT_DETACH);
    }
  }
  MountedDrive(const MountedDrive&) = delete;
  MountedDrive& operator=(const MountedDrive&) = delete;

  const TempFolder folder;
  IFSDrive* drive = nullptr;
  const std::string path;
  const int result;
};

}  // namespace tarn::test

#define TARN_SKIP_WITHOUT_FUSE()                                           \
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {                           \
    GTEST_SKIP() << "no /dev/fuse that this user may open on this system"; \
  }                                                                        \
  static_assert(true)
