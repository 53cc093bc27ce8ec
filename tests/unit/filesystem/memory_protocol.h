#pragma once

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/sync.h"
#include "interfaces/iprotocol_v2.h"

namespace tarn::test {

// A complete remote in memory. Threads: any, several operations at once.
class MemoryProtocol : public IProtocol_V2 {
 public:
  // What somebody elsewhere does and sees, at once. Folders above are made.
  void Write(const std::string& path, const std::string& content) {
    MakeFolder(FolderOf(path));
    const MutexLock guard(lock);
    tree.PutFile(path, content);
  }
  void MakeFolder(const std::string& path) {
    if (path != "/") {
      MakeFolder(FolderOf(path));
      const MutexLock guard(lock);
      tree.PutFolder(path);
    }
  }
  void Remove(const std::string& path) {
    const MutexLock guard(lock);
    std::erase_if(tree.items, [&](const auto& item) { return IsWithin(item.first, path); });
  }
  [[nodiscard]] std::string Content(const std::string& path) const {  // empty when there is none
    const MutexLock guard(lock);
    const auto item = tree.items.find(path);
    return item == tree.items.end() || !item->second.content ? "" : *item->second.content;
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

  // While it hangs, no operation comes back, whatever is cancelled.
  void SetHanging(bool is_hanging) {
    const MutexLock guard(lock);
    hangs = is_hanging;
    cancel_came.notify_all();
  }

  std::atomic<int> latency_ms = 0;                   // before every operation
  std::atomic<bool> reads_versions = true;           // a capability
  std::atomic<AERROR> failure = SUCCESS;             // of every operation, when not SUCCESS
  std::atomic<bool> loses_answers = false;           // uploads come, but fail nevertheless
  std::atomic<int> lists = 0, infos = 0, reads = 0;  // operations so far

  void Release() override {}  // lives as long as its test wants
  int GetUserName(char* /*buffer*/, int* /*length*/) override { return NOT_SUPPORTED; }
  AERROR GetSize(unsigned long long* total, unsigned long long* free) override {
    ++infos;
    *total = 10ULL << 30;
    *free = 4ULL << 30;
    return Begin();
  }
  int SetSize(unsigned long long /*total*/, unsigned long long /*used*/) override { return 0; }
  AERROR List(const char* path, FS_LIST_SINK sink, void* context) override {
    ++lists;
    return Do([&](Tree& all) {
      const Item* const folder = all.Find(path);
      if (folder == nullptr || folder->content) {
        return folder == nullptr ? PATH_NOT_FOUND : INVALID_DIRECTORY;
      }
      const std::string prefix = Below(path);
      for (auto item = all.items.upper_bound(prefix);
           item != all.items.end() && item->first.starts_with(prefix); ++item) {
        const std::string name = item->first.substr(prefix.size());
        const FS_INFO info = Describe(item->second);
        if (name.find('/') == std::string::npos && sink(context, name.c_str(), &info) == 0) {
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
      *info = Describe(*item);
      return SUCCESS;
    });
  }
  AERROR Read(const char* path, unsigned long long offset, void* buffer, unsigned long long length,
              unsigned long long* received) override {
    return ReadIf(path, nullptr, offset, buffer, length, received);
  }
  AERROR Upload(const char* path, FS_SOURCE* source, unsigned long long size, FS_PROGRESS progress,
                void* context) override {
    std::string content;
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    // Twice, as a module does whose connection broke in between.
    if (!ReadSource(*source, size, nullptr, nullptr, content) ||
        source->rewind(source->context) != 0 ||
        !ReadSource(*source, size, progress, context, content)) {
      return FILE_READ_FAILED;
    }
    const MutexLock guard(lock);
    const Item* const present = tree.Find(path);
    if (!tree.HasParent(path) || (present != nullptr && !present->content)) {
      return present != nullptr ? ALREADY_EXISTS : PATH_NOT_FOUND;
    }
    const FS_INFO replaced = present == nullptr ? FS_INFO{} : Describe(*present);
    if (source->replaces != nullptr && std::string_view(source->replaces) != replaced.version) {
      return SHARING_VIOLATION;
    }
    Item& stored = tree.PutFile(path, std::move(content));
    if (source->modified != nullptr) {
      stored.modified = *source->modified;
    }
    std::memcpy(source->version, Describe(stored).version, sizeof source->version);
    return loses_answers ? FILE_WRITE_FAILED : SUCCESS;
  }
  AERROR CreateFolder(const char* path) override {
    return Do([&](Tree& all) {
      if (all.Find(path) != nullptr || !all.HasParent(path)) {
        return all.Find(path) != nullptr ? ALREADY_EXISTS : PATH_NOT_FOUND;
      }
      all.PutFolder(path);
      return SUCCESS;
    });
  }
  AERROR DeleteFile(const char* path) override { return Delete(path, false); }
  AERROR DeleteFolder(const char* path) override { return Delete(path, true); }
  AERROR Move(const char* from, const char* to) override {
    return Do([&](Tree& all) {
      const Item* const source = all.Find(from);
      const Item* const target = all.Find(to);
      if (source == nullptr || !all.HasParent(to)) {
        return source == nullptr ? FILE_NOT_FOUND : PATH_NOT_FOUND;
      }
      if (target != nullptr && target != source) {
        if (!target->content != !source->content) {
          return ALREADY_EXISTS;
        }
        if (!target->content && !all.IsEmpty(to)) {
          return DIR_NOT_EMPTY;
        }
        all.items.erase(to);
      }
      std::map<std::string, Item> moved;
      for (const auto& [path, item] : all.items) {
        moved.emplace(IsWithin(path, from) ? to + path.substr(std::strlen(from)) : path, item);
      }
      all.items = std::move(moved);
      return SUCCESS;
    });
  }
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override {
    return Do([&](Tree& all) {
      Item* const item = all.Find(path);
      if (item == nullptr) {
        return FILE_NOT_FOUND;
      }
      item->modified = *time;
      item->version = ++all.last_version;  // as a version made of time and size
      return SUCCESS;
    });
  }
  AERROR GetIdentity(char* buffer, int* length) override {
    *length = std::snprintf(buffer, static_cast<size_t>(*length), "memory:");
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
    return reads_versions ? ReadIf(path, version, offset, buffer, length, received) : NOT_SUPPORTED;
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
    std::shared_ptr<const std::string> content;  // null for a folder
    FS_TIME modified = {};
    std::uint64_t version = 0;
  };

  struct Tree {
    Item* Find(const std::string& path) {
      const auto item = items.find(path);
      return item == items.end() ? nullptr : &item->second;
    }
    Item& PutFile(const std::string& path, std::string content) {
      return items[path] = {std::make_shared<const std::string>(std::move(content)), Now(),
                            ++last_version};
    }
    void PutFolder(const std::string& path) { items.try_emplace(path, Item{nullptr, Now(), 0}); }
    bool HasParent(const std::string& path) {
      const Item* const folder = Find(FolderOf(path));
      return folder != nullptr && !folder->content;
    }
    bool IsEmpty(const std::string& folder) {
      const auto next = items.upper_bound(Below(folder));
      return next == items.end() || !next->first.starts_with(Below(folder));
    }

    std::map<std::string, Item> items = {{"/", {}}};
    std::uint64_t last_version = 0;
  };

  static std::string FolderOf(const std::string& path) {
    return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
  }
  static std::string Below(const std::string& folder) {
    return folder == "/" ? folder : folder + "/";
  }
  static bool IsWithin(const std::string& path, const std::string& top) {
    return path == top || path.starts_with(Below(top));
  }
  static FS_TIME Now() {
    timespec now = {};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<int>(now.tv_nsec)};
  }
  static FS_INFO Describe(const Item& item) {
    FS_INFO info = {};
    info.is_folder = item.content ? 0 : 1;
    info.modified = item.modified;
    if (item.content) {
      info.size = item.content->size();
      std::snprintf(info.version, sizeof info.version, "v%llu",
                    static_cast<unsigned long long>(item.version));
    }
    return info;
  }
  static bool ReadSource(FS_SOURCE& source, unsigned long long size, FS_PROGRESS progress,
                         void* context, std::string& content) {
    std::string part(size_t{64} * 1024, '\0');
    content.clear();
    while (content.size() < size) {
      const auto wanted = std::min<unsigned long long>(part.size(), size - content.size());
      const long long count =
          source.read(source.context, part.data(), static_cast<long long>(wanted));
      if (count <= 0) {
        return false;
      }
      content.append(part, 0, static_cast<size_t>(count));
      if (progress != nullptr) {
        progress(static_cast<long long>(size), static_cast<long long>(content.size()), context,
                 1e6);
      }
    }
    return true;
  }

  // The remote's time for one operation, and its outcome if it is a failure.
  [[nodiscard]] AERROR Begin() {
    const int wait_ms = latency_ms;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    const MutexLock guard(lock);
    while (hangs) {
      cancel_came.wait(lock);
    }
    const int cancels_before = cancels;
    while (wait_ms > 0 && cancels == cancels_before && cancel_came.wait_until(lock, end)) {
    }
    return cancels == cancels_before ? failure.load() : READ_CANCELED;
  }
  // An operation on the tree, which takes the remote's time and may fail before it begins.
  template <typename Operation>
  AERROR Do(Operation operation) {
    const AERROR error = Begin();
    const MutexLock guard(lock);
    return error != SUCCESS ? error : operation(tree);
  }
  AERROR ReadIf(const char* path, const char* version, unsigned long long offset, void* buffer,
                unsigned long long length, unsigned long long* received) {
    ++reads;
    return Do([&](Tree& all) {
      const Item* const item = all.Find(path);
      if (item == nullptr || !item->content) {
        return FILE_NOT_FOUND;
      }
      if (version != nullptr && std::string_view(version) != Describe(*item).version) {
        return SHARING_VIOLATION;
      }
      const auto start = std::min<unsigned long long>(offset, item->content->size());
      *received = item->content->copy(static_cast<char*>(buffer), length, start);
      return SUCCESS;
    });
  }
  AERROR Delete(const char* path, bool is_folder) {
    return Do([&](Tree& all) {
      const Item* const item = all.Find(path);
      if (item == nullptr || is_folder != !item->content) {
        return is_folder ? PATH_NOT_FOUND : FILE_NOT_FOUND;
      }
      if (is_folder && !all.IsEmpty(path)) {
        return DIR_NOT_EMPTY;
      }
      all.items.erase(path);
      return SUCCESS;
    });
  }

  mutable Mutex lock;
  CondVar cancel_came;
  bool hangs TARN_GUARDED_BY(lock) = false;
  int cancels TARN_GUARDED_BY(lock) = 0;
  Tree tree TARN_GUARDED_BY(lock);
};

}  // namespace tarn::test
