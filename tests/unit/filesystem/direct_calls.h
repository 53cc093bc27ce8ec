#pragma once

#include <gtest/gtest.h>
#include <map>

#include "platform/filesystem/file_system.h"
#include "platform/filesystem/journal.h"
#include "platform/filesystem/names.h"
#include "tests/support/service/wait.h"
#include "tests/unit/filesystem/drive.h"
#include "tests/unit/filesystem/recording_events.h"

namespace tarn::test {

// Calls on a FileSystem, as the kernel makes them: each component looked up, every lookup
// forgotten.
class DirectCalls : public Calls {
 public:
  explicit DirectCalls(fs::FileSystem& tested) : files(tested) {}

  int Open(const std::string& path, int flags, int& file) override {
    const Node folder(files, Parent(path));
    if (folder.error != 0) {
      return folder.error;
    }
    fs::Stat stat;
    fs::FileSystem::Opened handle;
    int error = files.Lookup(folder.stat.ino, Name(path), stat);
    if (error == 0) {
      error = files.Open(stat.ino, flags & ~O_CREAT, handle);
      if (error != 0) {
        files.Forget(stat.ino, 1);
      }
    } else if (error == ENOENT && (flags & O_CREAT) != 0) {
      error = files.Create(folder.stat.ino, Name(path), flags, stat, handle);
    }
    if (error == 0) {
      file = next++;
      opened.emplace(file, OpenFile{stat.ino, handle.handle});
    }
    return error;
  }
  int Close(int file) override {
    const OpenFile closed = opened.at(file);
    opened.erase(file);
    const int error = files.Flush(closed.handle);
    files.Release(closed.handle);
    files.Forget(closed.ino, 1);
    return error;
  }
  int Sync(int file) override { return files.Sync(opened.at(file).handle); }
  int Read(int file, std::uint64_t offset, size_t length, std::string& content) override {
    std::vector<fs::Bytes> parts;
    const int error = files.Read(opened.at(file).handle, offset, length, parts);
    content.clear();
    for (const fs::Bytes& part : parts) {
      content.append(part.data, part.length);
    }
    return error;
  }
  int Write(int file, std::uint64_t offset, const std::string& content) override {
    size_t written = 0;
    const int error =
        files.Write(opened.at(file).handle, offset, content.data(), content.size(), false, written);
    return error == 0 && written != content.size() ? EIO : error;
  }
  int Truncate(int file, std::uint64_t size) override {
    fs::Stat stat;
    fs::AttributeChange change;
    change.size = size;
    return files.SetAttributes(opened.at(file).ino, change, stat);
  }
  int Rename(const std::string& from, const std::string& to) override {
    const Node source(files, from);
    const Node target(files, to);  // the kernel has looked both up
    const Node old_folder(files, Parent(from));
    const Node new_folder(files, Parent(to));
    if (source.error != 0 || new_folder.error != 0) {
      return source.error != 0 ? source.error : new_folder.error;
    }
    return files.Rename(old_folder.stat.ino, Name(from), new_folder.stat.ino, Name(to), true);
  }
  int Unlink(const std::string& path) override {
    const Node node(files, path);
    const Node folder(files, Parent(path));
    return node.error != 0 ? node.error : files.RemoveFile(folder.stat.ino, Name(path));
  }
  int MakeFolder(const std::string& path) override {
    const Node folder(files, Parent(path));
    if (folder.error != 0 || Node(files, path).error == 0) {
      return folder.error != 0 ? folder.error : EEXIST;
    }
    fs::Stat stat;
    const int error = files.MakeFolder(folder.stat.ino, Name(path), stat);
    if (error == 0) {
      files.Forget(stat.ino, 1);
    }
    return error;
  }
  int RemoveFolder(const std::string& path) override {
    const Node node(files, path);
    const Node folder(files, Parent(path));
    return node.error != 0 ? node.error : files.RemoveFolder(folder.stat.ino, Name(path));
  }
  int GetSize(const std::string& path, std::uint64_t& size) override {
    const Node node(files, path);
    fs::Stat stat;
    const int error = node.error != 0 ? node.error : files.GetAttributes(node.stat.ino, stat);
    size = stat.size;
    return error;
  }
  int List(const std::string& path, std::vector<std::string>& names) override {
    const Node node(files, path);
    fs::FolderContent content;
    const int error = node.error != 0 ? node.error : files.ReadFolder(node.stat.ino, content);
    names.clear();
    for (const fs::Entry& entry : content.entries) {
      names.push_back(entry.name);
    }
    std::sort(names.begin(), names.end());
    return error;
  }

 private:
  struct OpenFile {
    fs::Ino ino;
    std::uint64_t handle;
  };
  // A node that one lookup is counted on while this exists.
  struct Node {
    Node(fs::FileSystem& tested, const std::string& path) : files(tested) {
      if (path != "/") {
        const Node folder(files, Parent(path));
        error = folder.error != 0 ? folder.error : files.Lookup(folder.stat.ino, Name(path), stat);
        counted = error == 0;
      }
    }
    ~Node() {
      if (counted) {
        files.Forget(stat.ino, 1);
      }
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    fs::FileSystem& files;
    bool counted = false;
    int error = 0;
    fs::Stat stat = {};
  };

  static std::string Parent(const std::string& path) { return std::string(fs::FolderOf(path)); }
  static std::string Name(const std::string& path) { return std::string(fs::NameOf(path)); }

  fs::FileSystem& files;
  std::map<int, OpenFile> opened;
  int next = 1;
};

// A drive without a mount. Its end is that of a volume: nothing of it uses the remotes or the
// journal's folder any more. Without SendAll it is also that of a process which died: nothing of
// the objects' ends touches what was kept.
class Drive : public DirectCalls {
 public:
  explicit Drive(std::shared_ptr<fs::FileSystem> made = std::make_shared<fs::FileSystem>())
      : DirectCalls(*made), files(std::move(made)) {
    files->GetEvents().SetSink(events);
  }
  explicit Drive(IProtocol_V2& protocol) : Drive() { files->AddProtocol(Share(protocol)); }
  Drive(IProtocol_V2& protocol, const std::string& journals, const std::string& label = "drive")
      : Drive() {
    files->UseJournal(fs::Journal::Open(journals, label));
    files->AddProtocol(Share(protocol));
  }
  ~Drive() override {
    (void)files->GetRemote().Close();
    files->CloseAll();
    EXPECT_TRUE(WaitUntil([&] { return files.use_count() == 1; }));
  }
  Drive(const Drive&) = delete;
  Drive& operator=(const Drive&) = delete;

  const std::shared_ptr<RecordingEvents> events = std::make_shared<RecordingEvents>();
  const std::shared_ptr<fs::FileSystem> files;
};

}  // namespace tarn::test
