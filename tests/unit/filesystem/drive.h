#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/filesystem/file_system.h"
#include "tests/support/protocol/memory_protocol.h"

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
  int WriteFile(const std::string& path, const std::string& content);
  int ReadFile(const std::string& path, std::string& content);
  std::string Content(const std::string& path);  // "(error)" when it cannot be read
};

// Calls on a FileSystem, as the kernel makes them: each component looked up, every lookup
// forgotten.
class DirectCalls : public Calls {
 public:
  explicit DirectCalls(fs::FileSystem& tested) : files(tested) {}

  int Open(const std::string& path, int flags, int& file) override;
  int Close(int file) override;
  int Sync(int file) override;
  int Read(int file, std::uint64_t offset, size_t length, std::string& content) override;
  int Write(int file, std::uint64_t offset, const std::string& content) override;
  int Truncate(int file, std::uint64_t size) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Unlink(const std::string& path) override;
  int MakeFolder(const std::string& path) override;
  int RemoveFolder(const std::string& path) override;
  int GetSize(const std::string& path, std::uint64_t& size) override;
  int List(const std::string& path, std::vector<std::string>& names) override;

 private:
  struct Opened {
    fs::Ino ino;
    std::uint64_t handle;
  };
  // A node that one lookup is counted on while this exists.
  class Node;
  struct Place;

  fs::FileSystem& files;
  std::map<int, Opened> opened;
  int next = 1;
};

// Calls on a folder of this machine.
class FolderCalls : public Calls {
 public:
  explicit FolderCalls(std::string folder) : root(std::move(folder)) {}

  int Open(const std::string& path, int flags, int& file) override;
  int Close(int file) override;
  int Sync(int file) override;
  int Read(int file, std::uint64_t offset, size_t length, std::string& content) override;
  int Write(int file, std::uint64_t offset, const std::string& content) override;
  int Truncate(int file, std::uint64_t size) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Unlink(const std::string& path) override;
  int MakeFolder(const std::string& path) override;
  int RemoveFolder(const std::string& path) override;
  int GetSize(const std::string& path, std::uint64_t& size) override;
  int List(const std::string& path, std::vector<std::string>& names) override;

 private:
  const std::string root;
};

// Shares a protocol that the test owns.
std::shared_ptr<IProtocol_V2> Share(IProtocol_V2& protocol);

}  // namespace tarn::test
