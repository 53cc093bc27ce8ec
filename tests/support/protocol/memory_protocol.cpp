#include "tests/support/protocol/memory_protocol.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tarn::test {

namespace {

std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string Below(const std::string& folder) {
  return folder == "/" ? folder : folder + "/";
}

FS_TIME Now() {
  timespec now = {};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  return {now.tv_sec, static_cast<int>(now.tv_nsec)};
}

AERROR CopyText(const std::string& text, char* buffer, int* length) {
  if (*length <= static_cast<int>(text.size())) {
    return INSUFFICIENT_BUFFER;
  }
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  *length = static_cast<int>(text.size());
  return SUCCESS;
}

}  // namespace

MemoryProtocol::Item& MemoryProtocol::Store::Put(const std::string& path, Item item) {
  item.version = ++last_version;
  return items.insert_or_assign(path, std::move(item)).first->second;
}

AERROR MemoryProtocol::Store::CheckParent(const std::string& path) const {
  const auto folder = items.find(FolderOf(path));
  return folder != items.end() && folder->second.is_folder ? SUCCESS : PATH_NOT_FOUND;
}

bool MemoryProtocol::Store::IsEmpty(const std::string& folder) const {
  const auto next = items.lower_bound(Below(folder));
  return next == items.end() || !next->first.starts_with(Below(folder));
}

void MemoryProtocol::Store::MakeFolder(const std::string& path) {
  const MutexLock guard(lock);
  for (size_t end = 1; end != std::string::npos;) {
    end = path.find('/', end);
    const std::string folder = path.substr(0, end);
    if (items.count(folder) == 0) {
      Put(folder, {.is_folder = true, .content = nullptr, .modified = Now(), .version = 0});
    }
    end = end == std::string::npos ? end : end + 1;
  }
}

void MemoryProtocol::Store::Write(const std::string& path, const std::string& content) {
  MakeFolder(FolderOf(path));
  const MutexLock guard(lock);
  Put(path, {.is_folder = false,
             .content = std::make_shared<const std::string>(content),
             .modified = Now(),
             .version = 0});
}

void MemoryProtocol::Store::Remove(const std::string& path) {
  const MutexLock guard(lock);
  std::erase_if(items, [&](const auto& item) {
    return item.first == path || item.first.starts_with(path + "/");
  });
}

bool MemoryProtocol::Store::Has(const std::string& path) const {
  const MutexLock guard(lock);
  return items.count(path) != 0;
}

std::string MemoryProtocol::Store::Content(const std::string& path) const {
  const MutexLock guard(lock);
  const auto item = items.find(path);
  return item == items.end() || item->second.is_folder ? "" : *item->second.content;
}

std::vector<std::string> MemoryProtocol::Store::Paths() const {
  std::vector<std::string> paths;
  const MutexLock guard(lock);
  for (const auto& [path, item] : items) {
    if (path != "/") {
      paths.push_back(path);
    }
  }
  return paths;
}

AERROR MemoryProtocol::Begin(std::atomic<int>& counter) {
  ++counter;
  const auto end =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(behaviour.latency_ms);
  if (behaviour.latency_ms > 0) {
    const MutexLock guard(lock);
    const int cancels_before = cancels;
    while (cancels == cancels_before && cancel_came.wait_until(lock, end)) {
    }
    if (cancels != cancels_before) {
      return READ_CANCELED;
    }
  }
  return behaviour.failure;
}

AERROR MemoryProtocol::Cancel() {
  const MutexLock guard(lock);
  ++cancels;
  cancel_came.notify_all();
  return SUCCESS;
}

void MemoryProtocol::Describe(const Item& item, FS_INFO& info) {
  info = {};
  info.is_folder = item.is_folder ? 1 : 0;
  info.size = item.content ? item.content->size() : 0;
  info.modified = item.modified;
  if (!item.is_folder) {
    std::snprintf(info.version, sizeof info.version, "v%llu",
                  static_cast<unsigned long long>(item.version));
  }
}

int MemoryProtocol::GetUserName(char* buffer, int* length) {
  return CopyText("somebody", buffer, length);
}

AERROR MemoryProtocol::GetIdentity(char* buffer, int* length) {
  return identity.empty() ? NOT_SUPPORTED : CopyText(identity, buffer, length);
}

AERROR MemoryProtocol::GetSize(unsigned long long* total, unsigned long long* free) {
  if (const AERROR error = Begin(counts.info); error != SUCCESS) {
    return error;
  }
  *total = 10ULL << 30;
  *free = 4ULL << 30;
  return SUCCESS;
}

AERROR MemoryProtocol::List(const char* path, FS_LIST_SINK sink, void* context) {
  if (const AERROR error = Begin(counts.list); error != SUCCESS) {
    return error;
  }
  std::vector<std::pair<std::string, FS_INFO>> entries;
  {
    const MutexLock guard(store->lock);
    const auto folder = store->items.find(path);
    if (folder == store->items.end()) {
      return PATH_NOT_FOUND;
    }
    if (!folder->second.is_folder) {
      return INVALID_DIRECTORY;
    }
    const std::string prefix = Below(path);
    for (auto item = store->items.upper_bound(prefix);
         item != store->items.end() && item->first.starts_with(prefix); ++item) {
      const std::string name = item->first.substr(prefix.size());
      if (name.find('/') == std::string::npos) {
        entries.emplace_back(name, FS_INFO{});
        Describe(item->second, entries.back().second);
      }
    }
  }
  for (const auto& [name, info] : entries) {
    if (sink(context, name.c_str(), &info) == 0) {
      break;
    }
  }
  return SUCCESS;
}

AERROR MemoryProtocol::GetInfo(const char* path, FS_INFO* info) {
  if (const AERROR error = Begin(counts.info); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  const auto item = store->items.find(path);
  if (item == store->items.end()) {
    return FILE_NOT_FOUND;
  }
  Describe(item->second, *info);
  return SUCCESS;
}

AERROR MemoryProtocol::Read(const char* path, unsigned long long offset, void* buffer,
                            unsigned long long length, unsigned long long* received) {
  if (const AERROR error = Begin(counts.read); error != SUCCESS) {
    return error;
  }
  std::shared_ptr<const std::string> content;
  {
    const MutexLock guard(store->lock);
    const auto item = store->items.find(path);
    if (item == store->items.end() || item->second.is_folder) {
      return FILE_NOT_FOUND;
    }
    content = item->second.content;
  }
  const unsigned long long start = std::min<unsigned long long>(offset, content->size());
  *received = std::min<unsigned long long>(length, content->size() - start);
  std::memcpy(buffer, content->data() + start, *received);
  return SUCCESS;
}

bool MemoryProtocol::ReadSource(FS_SOURCE& source, unsigned long long size, FS_PROGRESS progress,
                                void* context, std::string& content) {
  constexpr size_t kPartBytes = 64 * 1024;
  content.clear();
  while (content.size() < size) {
    const size_t wanted = std::min<unsigned long long>(kPartBytes, size - content.size());
    const size_t before = content.size();
    content.resize(before + wanted);
    const long long count =
        source.read(source.context, content.data() + before, static_cast<long long>(wanted));
    if (count <= 0) {
      return false;
    }
    content.resize(before + static_cast<size_t>(count));
    if (progress != nullptr) {
      progress(static_cast<long long>(size), static_cast<long long>(content.size()), context, 1e6);
    }
  }
  return true;
}

AERROR MemoryProtocol::Upload(const char* path, FS_SOURCE* source, unsigned long long size,
                              FS_PROGRESS progress, void* context) {
  std::string content;
  if (const AERROR error = Begin(counts.upload); error != SUCCESS) {
    return error;
  }
  // Twice, as a module does whose connection broke in between.
  if (!ReadSource(*source, size, nullptr, nullptr, content) ||
      source->rewind(source->context) != 0 ||
      !ReadSource(*source, size, progress, context, content)) {
    return FILE_READ_FAILED;
  }
  const MutexLock guard(store->lock);
  if (const AERROR error = store->CheckParent(path); error != SUCCESS) {
    return error;
  }
  FS_INFO present = {};
  if (const auto item = store->items.find(path); item != store->items.end()) {
    if (item->second.is_folder) {
      return ALREADY_EXISTS;
    }
    Describe(item->second, present);
  }
  const bool minds_version = (behaviour.capabilities & FS_CAN_REPLACE_VERSION) != 0;
  if (minds_version && source->replaces != nullptr &&
      std::string_view(source->replaces) != present.version) {
    return SHARING_VIOLATION;
  }
  const bool keeps_time =
      source->modified != nullptr && (behaviour.capabilities & FS_CAN_SET_TIME) != 0;
  const Item& stored =
      store->Put(path, {.is_folder = false,
                        .content = std::make_shared<const std::string>(std::move(content)),
                        .modified = keeps_time ? *source->modified : Now(),
                        .version = 0});
  if (behaviour.tells_version) {
    FS_INFO info = {};
    Describe(stored, info);
    std::memcpy(source->version, info.version, sizeof info.version);
  }
  return SUCCESS;
}

AERROR MemoryProtocol::CreateFolder(const char* path) {
  if (const AERROR error = Begin(counts.change); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  if (store->items.count(path) != 0) {
    return ALREADY_EXISTS;
  }
  const AERROR error = store->CheckParent(path);
  if (error == SUCCESS) {
    store->Put(path, {.is_folder = true, .content = nullptr, .modified = Now(), .version = 0});
  }
  return error;
}

AERROR MemoryProtocol::DeleteFile(const char* path) {
  if (const AERROR error = Begin(counts.change); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  const auto item = store->items.find(path);
  if (item == store->items.end() || item->second.is_folder) {
    return FILE_NOT_FOUND;
  }
  store->items.erase(item);
  return SUCCESS;
}

AERROR MemoryProtocol::DeleteFolder(const char* path) {
  if (const AERROR error = Begin(counts.change); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  const auto item = store->items.find(path);
  if (item == store->items.end() || !item->second.is_folder) {
    return PATH_NOT_FOUND;
  }
  if (!store->IsEmpty(path)) {
    return DIR_NOT_EMPTY;
  }
  store->items.erase(item);
  return SUCCESS;
}

AERROR MemoryProtocol::Move(const char* from, const char* to) {
  if (const AERROR error = Begin(counts.change); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  auto& items = store->items;
  const auto source = items.find(from);
  if (source == items.end()) {
    return FILE_NOT_FOUND;
  }
  if (const AERROR error = store->CheckParent(to); error != SUCCESS) {
    return error;
  }
  if (const auto target = items.find(to); target != items.end() && target != source) {
    if (target->second.is_folder != source->second.is_folder) {
      return ALREADY_EXISTS;
    }
    if (target->second.is_folder && !store->IsEmpty(to)) {
      return DIR_NOT_EMPTY;
    }
    items.erase(target);
  }
  std::map<std::string, Item> moved;
  const std::string old_place = from;
  for (auto item = items.begin(); item != items.end();) {
    if (item->first == old_place || item->first.starts_with(old_place + "/")) {
      moved.emplace(to + item->first.substr(old_place.size()), std::move(item->second));
      item = items.erase(item);
    } else {
      ++item;
    }
  }
  items.merge(moved);
  return SUCCESS;
}

AERROR MemoryProtocol::SetModifiedTime(const char* path, const FS_TIME* time) {
  if (const AERROR error = Begin(counts.change); error != SUCCESS) {
    return error;
  }
  const MutexLock guard(store->lock);
  const auto item = store->items.find(path);
  if (item == store->items.end()) {
    return FILE_NOT_FOUND;
  }
  item->second.modified = *time;
  item->second.version = ++store->last_version;  // as a version made of time and size
  return SUCCESS;
}

}  // namespace tarn::test
