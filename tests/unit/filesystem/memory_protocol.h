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
    PutFile(path, content);
  }
  void MakeFolder(const std::string& path) {
    if (path != "/") {
      MakeFolder(FolderOf(path));
      const MutexLock guard(lock);
      PutFolder(path);
    }
  }
  void Remove(const std::string& path) {
    const MutexLock guard(lock);
    std::erase_if(items, [&](const auto& item) { return IsWithin(item.first, path); });
  }
  [[nodiscard]] std::string Content(const std::string& path) const {  // empty when there is none
    const MutexLock guard(lock);
    const auto item = items.find(path);
    return item == items.end() || !item->second.content ? "" : *item->second.content;
  }
  [[nodiscard]] std::vector<std::string> Paths() const {  // sorted, without the root
    std::vector<std::string> paths;
    const MutexLock guard(lock);
    for (auto item = std::next(items.begin()); item != items.end(); ++item) {
      paths.push_back(item->first);
    }
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
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto folder = items.find(path);
    if (folder == items.end() || folder->second.content) {
      return folder == items.end() ? PATH_NOT_FOUND : INVALID_DIRECTORY;
    }
    const std::string prefix = Below(path);
    for (auto item = items.upper_bound(prefix);
         item != items.end() && item->first.starts_with(prefix); ++item) {
      const std::string name = item->first.substr(prefix.size());
      const FS_INFO info = Describe(item->second);
      if (name.find('/') == std::string::npos && sink(context, name.c_str(), &info) == 0) {
        break;
      }
    }
    return SUCCESS;
  }
  AERROR GetInfo(const char* path, FS_INFO* info) override {
    ++infos;
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto item = items.find(path);
    if (item == items.end()) {
      return FILE_NOT_FOUND;
    }
    *info = Describe(item->second);
    return SUCCESS;
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
    if (const AERROR error = CheckParent(path); error != SUCCESS) {
      return error;
    }
    const auto present = items.find(path);
    if (present != items.end() && !present->second.content) {
      return ALREADY_EXISTS;
    }
    const FS_INFO replaced = present == items.end() ? FS_INFO{} : Describe(present->second);
    if (source->replaces != nullptr && std::string_view(source->replaces) != replaced.version) {
      return SHARING_VIOLATION;
    }
    Item& stored = PutFile(path, std::move(content));
    if (source->modified != nullptr) {
      stored.modified = *source->modified;
    }
    std::memcpy(source->version, Describe(stored).version, sizeof source->version);
    return loses_answers ? FILE_WRITE_FAILED : SUCCESS;
  }
  AERROR CreateFolder(const char* path) override {
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const AERROR error = items.count(path) != 0 ? ALREADY_EXISTS : CheckParent(path);
    if (error == SUCCESS) {
      PutFolder(path);
    }
    return error;
  }
  AERROR DeleteFile(const char* path) override { return Delete(path, false); }
  AERROR DeleteFolder(const char* path) override { return Delete(path, true); }
  AERROR Move(const char* from, const char* to) override {
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto source = items.find(from);
    if (source == items.end()) {
      return FILE_NOT_FOUND;
    }
    if (const AERROR error = CheckParent(to); error != SUCCESS) {
      return error;
    }
    if (const auto target = items.find(to); target != items.end() && target != source) {
      if (!target->second.content != !source->second.content) {
        return ALREADY_EXISTS;
      }
      if (!target->second.content && !IsEmpty(to)) {
        return DIR_NOT_EMPTY;
      }
      items.erase(target);
    }
    Items moved;
    for (const auto& [path, item] : items) {
      moved.insert_or_assign(IsWithin(path, from) ? to + path.substr(std::strlen(from)) : path,
                             item);
    }
    items = std::move(moved);
    return SUCCESS;
  }
  AERROR SetModifiedTime(const char* path, const FS_TIME* time) override {
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto item = items.find(path);
    if (item == items.end()) {
      return FILE_NOT_FOUND;
    }
    item->second.modified = *time;
    item->second.version = ++last_version;  // as a version made of time and size
    return SUCCESS;
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
    if (!reads_versions) {
      return NOT_SUPPORTED;
    }
    return ReadIf(path, version, offset, buffer, length, received);
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
  using Items = std::map<std::string, Item>;

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

  static bool ReadSource(FS_SOURCE& source, unsigned long long size, FS_PROGRESS progress,
                         void* context, std::string& content) {
    constexpr size_t kPartBytes = 64 * 1024;
    content.clear();
    while (content.size() < size) {
      std::string part(std::min<unsigned long long>(kPartBytes, size - content.size()), '\0');
      const long long count =
          source.read(source.context, part.data(), static_cast<long long>(part.size()));
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

  AERROR ReadIf(const char* path, const char* version, unsigned long long offset, void* buffer,
                unsigned long long length, unsigned long long* received) {
    ++reads;
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto item = items.find(path);
    if (item == items.end() || !item->second.content) {
      return FILE_NOT_FOUND;
    }
    if (version != nullptr && std::string_view(version) != Describe(item->second).version) {
      return SHARING_VIOLATION;
    }
    const std::string& content = *item->second.content;
    const unsigned long long start = std::min<unsigned long long>(offset, content.size());
    *received = content.copy(static_cast<char*>(buffer), length, start);
    return SUCCESS;
  }
  // The remote's time for one operation, and its outcome if it is a failure.
  [[nodiscard]] AERROR Begin() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(latency_ms);
    {
      const MutexLock guard(lock);
      while (hangs) {
        cancel_came.wait(lock);
      }
    }
    if (latency_ms > 0) {
      const MutexLock guard(lock);
      const int cancels_before = cancels;
      while (cancels == cancels_before && cancel_came.wait_until(lock, end)) {
      }
      if (cancels != cancels_before) {
        return READ_CANCELED;
      }
    }
    return failure;
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
  Item& PutFile(const std::string& path, std::string content) TARN_REQUIRES(lock) {
    Item& item = items[path];
    item = {std::make_shared<const std::string>(std::move(content)), Now(), ++last_version};
    return item;
  }
  void PutFolder(const std::string& path) TARN_REQUIRES(lock) {
    items.try_emplace(path, Item{nullptr, Now(), 0});
  }
  [[nodiscard]] AERROR CheckParent(const std::string& path) const TARN_REQUIRES(lock) {
    const auto folder = items.find(FolderOf(path));
    return folder != items.end() && !folder->second.content ? SUCCESS : PATH_NOT_FOUND;
  }
  [[nodiscard]] bool IsEmpty(const std::string& folder) const TARN_REQUIRES(lock) {
    const auto next = items.upper_bound(Below(folder));
    return next == items.end() || !next->first.starts_with(Below(folder));
  }
  AERROR Delete(const std::string& path, bool is_folder) {
    if (const AERROR error = Begin(); error != SUCCESS) {
      return error;
    }
    const MutexLock guard(lock);
    const auto item = items.find(path);
    if (item == items.end() || is_folder != !item->second.content) {
      return is_folder ? PATH_NOT_FOUND : FILE_NOT_FOUND;
    }
    if (is_folder && !IsEmpty(path)) {
      return DIR_NOT_EMPTY;
    }
    items.erase(item);
    return SUCCESS;
  }

  mutable Mutex lock;
  CondVar cancel_came;
  bool hangs TARN_GUARDED_BY(lock) = false;
  int cancels TARN_GUARDED_BY(lock) = 0;
  Items items TARN_GUARDED_BY(lock) = {{"/", {}}};
  std::uint64_t last_version TARN_GUARDED_BY(lock) = 0;
};

}  // namespace tarn::test
