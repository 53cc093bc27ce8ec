#pragma once

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"
#include "platform/filesystem/names.h"

namespace tarn::test {

// A complete remote in memory. Threads: any, several operations at once.
class MemoryProtocol : public IProtocol_V2 {
 public:
  virtual ~MemoryProtocol() = default;

  // What somebody elsewhere does and sees, at once. Folders above are made.
  void Write(const std::string& path, const std::string& content) {
    const MutexLock guard(lock);
    tree.PutFolder(std::string(fs::FolderOf(path)));
    tree.PutFile(path, content);
  }
  void MakeFolder(const std::string& path) {
    const MutexLock guard(lock);
    tree.PutFolder(path);
  }
  void Remove(const std::string& path) {
    const MutexLock guard(lock);
    std::erase_if(tree.items, [&](const auto& item) { return fs::IsWithin(item.first, path); });
  }
  [[nodiscard]] std::string Content(const std::string& path) const {  // empty when there is none
    const MutexLock guard(lock);
    const auto item = tree.items.find(path);
    return item == tree.items.end() ? "" : item->second.content;
  }
  [[nodiscard]] std::vector<std::string> Paths() const {  // sorted, without the root
    std::vector<std::string> paths;
    const MutexLock guard(lock);
    for (const auto& [path, item] : tree.items) {
      paths.push_back(path);
    }
    paths.erase(paths.begin());
    return paths;
  }

  // Versions then tell sizes apart and nothing else, as within one second where that is all that a
  // server counts.
  void StopTheClock() {
    const MutexLock guard(lock);
    tree.tick = 0;
  }
  // While it hangs, no operation comes back, whatever is cancelled.
  void SetHanging(bool is_hanging) {
    hangs = is_hanging;
    hangs.notify_all();
  }

  std::string identity = "memory:";         // set before the first use
  std::atomic<int> latency_ms = 0;          // before every operation
  std::atomic<bool> reads_versions = true;  // a capability
  std::atomic<AERROR> failure = SUCCESS;    // of every operation, when not SUCCESS
  std::atomic<bool> fails_once = false;     // then only of the next one
  std::atomic<AERROR> refusal = SUCCESS;    // of uploads, as where files are locked
  std::atomic<bool> loses_answers = false;  // uploads come, but fail nevertheless
  std::atomic<int> lists = 0, infos = 0, reads = 0, uploads = 0;  // operations so far

  void Release() override {}  // lives as long as its test wants
  int GetUserName(char* /*buffer*/, int* /*length*/) override { return NOT_SUPPORTED; }
  AERROR GetSize(unsigned long long* total, unsigned long long* free) override {
    ++infos;
    *total = *free = 4ULL << 30;
    return Begin();
  }
  int SetSize(unsigned long long /*total*/, unsigned long long /*used*/) override { return 0; }
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override {
    ++lists;
    return Do([&](Tree& all) {
      if (!all.IsFolder(path)) {
        return PATH_NOT_FOUND;
      }
      for (const auto& [child, item] : all.items) {
        const std::string name(fs::NameOf(child));
        if (Tree::IsIn(path, child) && sink(context, name.c_str(), &item.info) == 0) {
          break;
        }
      }
      return SUCCESS;
    });
  }
  AERROR GetInfo(const char* path, FS_INFO* info) override {
    ++infos;
    return Do([&](Tree& all) {
      const Item* const item = all.Find(path);
      if (item == nullptr) {
        return FILE_NOT_FOUND;
      }
      *info = item->info;
      return SUCCESS;
    });
  }
  AERROR Read(const char* path, unsigned long long offset, void* buffer, unsigned long long length,
              unsigned long long* received) override {
    return ReadVersion(path, nullptr, offset, buffer, length, received);
  }
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    ++uploads;
    std::string content;
    if (const AERROR error = Begin(); error != SUCCESS || refusal != SUCCESS) {
      return error != SUCCESS ? error : refusal.load();
    }
    for (int i = 0; i < 2; ++i) {  // as a module does whose connection broke in between
      if (source->rewind(source->context) != 0 ||
          !ReadSource(*source, size, progress, context, content)) {
        return FILE_READ_FAILED;
      }
    }
    const MutexLock guard(lock);
    if (tree.IsFolder(path) || !tree.HasFolderOf(path)) {
      return tree.IsFolder(path) ? ALREADY_EXISTS : PATH_NOT_FOUND;
    }
    const Item* const present = tree.Find(path);
    const std::string_view replaced = present == nullptr ? "" : present->info.version;
    if (source->replaces != nullptr && source->replaces != replaced) {
      return SHARING_VIOLATION;
    }
    Item& stored = tree.PutFile(path, content);
    if (source->modified != nullptr) {
      stored.info.modified = *source->modified;
    }
    std::memcpy(source->version, stored.info.version, sizeof source->version);
    return loses_answers ? FILE_WRITE_FAILED : SUCCESS;
  }
  AERROR CreateFolder(const char* path) override {
    return Do([&](Tree& all) {
      if (all.Find(path) != nullptr || !all.HasFolderOf(path)) {
        return all.Find(path) != nullptr ? ALREADY_EXISTS : PATH_NOT_FOUND;
      }
      all.items.try_emplace(path);
      return SUCCESS;
    });
  }
  AERROR DeleteFile(const char* path) override {
    return Do([&](Tree& all) { return all.items.erase(path) == 1 ? SUCCESS : FILE_NOT_FOUND; });
  }
  AERROR DeleteFolder(const char* path) override {
    return Do([&](Tree& all) {
      if (!all.IsEmpty(path)) {
        return DIR_NOT_EMPTY;
      }
      return all.items.erase(path) == 1 ? SUCCESS : PATH_NOT_FOUND;
    });
  }
  AERROR Move(const char* from, const char* to) override {
    return Do([&](Tree& all) {
      const Item* const source = all.Find(from);
      const Item* const target = all.Find(to);
      if (source == nullptr || !all.HasFolderOf(to)) {
        return source == nullptr ? FILE_NOT_FOUND : PATH_NOT_FOUND;
      }
      if (target != nullptr && target->info.is_folder != 0 && !all.IsEmpty(to)) {
        return DIR_NOT_EMPTY;
      }
      all.items.erase(to);
      for (auto& [path, item] : std::exchange(all.items, {})) {
        if (path == from && item.info.is_folder == 0) {
          all.SetVersion(item);  // as where it is made of the time of the last change of anything
        }
        all.items.emplace(fs::IsWithin(path, from) ? to + path.substr(std::strlen(from)) : path,
                          item);
      }
      return SUCCESS;
    });
  }
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override {
    return Do([&](Tree& all) {
      Item* const item = all.Find(path);
      if (item == nullptr) {
        return FILE_NOT_FOUND;
      }
      item->info.modified = *time;
      all.SetVersion(*item);  // as where it is made of time and size
      return SUCCESS;
    });
  }
  AERROR GetIdentity(char* buffer, int* length) override {
    *length = std::snprintf(buffer, static_cast<size_t>(*length), "%s", identity.c_str());
    return SUCCESS;
  }
  AERROR Cancel() override {
    const MutexLock guard(lock);
    ++cancels;
    cancel_came.notify_all();
    return SUCCESS;
  }
  unsigned long long GetCapabilities() override {
    return FS_CAN_SET_TIME | FS_CAN_REPLACE_VERSION | FS_HAS_SIZE |
           (reads_versions ? FS_CAN_READ_VERSION : 0ULL);
  }
  AERROR ReadVersion(const char* path, const char* version, unsigned long long offset, void* buffer,
                     unsigned long long length, unsigned long long* received) override {
    ++reads;
    return Do([&](Tree& all) {
      const Item* const item = all.Find(path);
      if (item == nullptr) {
        return FILE_NOT_FOUND;
      }
      if (version != nullptr && std::string_view(version) != item->info.version) {
        return SHARING_VIOLATION;
      }
      const auto start = std::min<unsigned long long>(offset, item->content.size());
      *received = item->content.copy(static_cast<char*>(buffer), length, start);
      return SUCCESS;
    });
  }
  int SetOption(const char* /*key*/, const char* /*value*/) override { return 0; }
  void Reserved18() override {}
  int GetCredential(char* buffer, int* length) override { return GetUserName(buffer, length); }
  void SetKeyFile(const char* /*path*/) override {}
  AERROR Connect(char** /*message*/) override { return SUCCESS; }
  AERROR Disconnect() override { return SUCCESS; }
  void SetQuotaCallback(void* /*context*/, QUOTA_CALLBACK /*callback*/) override {}
  void FreeString(char* /*text*/) override {}

 private:
  struct Item {
    std::string content;
    FS_INFO info = {1, 0, {}, ""};  // a folder
  };

  struct Tree {
    Item* Find(const std::string& path) {
      const auto item = items.find(path);
      return item == items.end() ? nullptr : &item->second;
    }
    void PutFolder(std::string path) {  // and those above
      while (items.try_emplace(path).second) {
        path = std::string(fs::FolderOf(path));
      }
    }
    Item& PutFile(const std::string& path, const std::string& content) {
      Item& item = items[path] = {content, {}};
      item.info.size = content.size();
      item.info.modified.seconds = std::time(nullptr);
      SetVersion(item);
      return item;
    }
    void SetVersion(Item& item) {
      last_version += tick;
      std::snprintf(item.info.version, sizeof item.info.version, "v%d-%zu", last_version,
                    item.content.size());
    }
    bool IsFolder(const std::string& path) {
      const Item* const item = Find(path);
      return item != nullptr && item->info.is_folder != 0;
    }
    bool HasFolderOf(const std::string& path) { return IsFolder(std::string(fs::FolderOf(path))); }
    static bool IsIn(const std::string& folder, const std::string& path) {
      return path != "/" && fs::FolderOf(path) == folder;
    }
    bool IsEmpty(const std::string& folder) {
      return std::none_of(items.begin(), items.end(),
                          [&](const auto& item) { return IsIn(folder, item.first); });
    }

    std::map<std::string, Item> items = {{"/", {}}};
    int last_version = 0;
    int tick = 1;
  };

  static bool ReadSource(FS_SOURCE& source, unsigned long long size, FS_PROGRESS progress,
                         void* context, std::string& content) {
    content.resize(size);
    for (size_t done = 0; done < size;) {
      const auto wanted = static_cast<long long>(std::min<size_t>(65536, size - done));
      const long long count = source.read(source.context, content.data() + done, wanted);
      if (count <= 0) {
        return false;
      }
      done += static_cast<size_t>(count);
      progress(static_cast<long long>(size), static_cast<long long>(done), context, 1e6);
    }
    return true;
  }

  // The remote's time for one operation, and its outcome if it is a failure.
  [[nodiscard]] AERROR Begin() {
    const int wait_ms = latency_ms;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    hangs.wait(true);
    const MutexLock guard(lock);
    const int cancels_before = cancels;
    while (wait_ms > 0 && cancels == cancels_before && cancel_came.wait_until(lock, end)) {
    }
    if (cancels != cancels_before) {
      return READ_CANCELED;
    }
    return fails_once ? failure.exchange(SUCCESS) : failure.load();
  }
  // An operation on the tree, which takes the remote's time and may fail before it begins.
  template <typename Operation>
  AERROR Do(Operation operation) {
    const AERROR error = Begin();
    const MutexLock guard(lock);
    return error != SUCCESS ? error : operation(tree);
  }

  mutable Mutex lock;
  CondVar cancel_came;
  std::atomic<bool> hangs = false;
  int cancels TARN_GUARDED_BY(lock) = 0;
  Tree tree TARN_GUARDED_BY(lock);
};

}  // namespace tarn::test
